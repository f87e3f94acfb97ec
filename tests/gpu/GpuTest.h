#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "tests/gpu/Golden.h"
#include "tests/support/PictureSource.h"
#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFilter.h"
#include "zellive/gpu/GPUImageFramebufferCache.h"

namespace zellive::test {

/// What the process has done since it started; memory counts operator new only.
struct Counts {
  std::uint64_t glObjects, textureStorages, draws, reads, allocations;
  friend Counts operator-(const Counts& a, const Counts& b) {
    return {a.glObjects - b.glObjects, a.textureStorages - b.textureStorages, a.draws - b.draws, a.reads - b.reads,
            a.allocations - b.allocations};
  }
};
[[nodiscard]] Counts counted();

/// The shared context of these tests runs on the machine's platform, but time limits are over as soon as they begin,
/// and its rendering context can be lost.
struct GpuPlatform {
  static inline std::atomic<std::chrono::nanoseconds> lastLimit{};
  static inline std::atomic<bool> contextLost = false;
  /// OpenGL ES 2 as it was at first: the driver names no extension.
  static inline std::atomic<bool> plainDriver = false;
};

template <typename Block>
void onQueue(Block&& block) {
  runSynchronouslyOnVideoProcessingQueue(std::forward<Block>(block));
}

inline std::shared_ptr<GPUImageFramebuffer> fetch(double width, double height, bool onlyTexture = false) {
  return GPUImageContext::sharedFramebufferCache()->fetchFramebufferForSize({width, height}, onlyTexture);
}

/// A plain target that writes down what it is told, and keeps no frame.
class Recorder : public GPUImageInput {
 public:
  explicit Recorder(bool ignoresUpdates = false) : ignoresUpdates_(ignoresUpdates) {}
  void newFrameReadyAtTime(MediaTime frameTime, std::size_t) override {
    times.push_back(frameTime.value);
    if (last) {
      last->unlock();
    }
  }
  void setInputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer, std::size_t) override {
    last = std::move(framebuffer);
    if (last) {
      last->lock();
    }
  }
  [[nodiscard]] std::size_t nextAvailableTextureIndex() const override { return 0; }
  void setInputSize(Size value, std::size_t) override { size = value; }
  void setInputRotation(GPUImageInputTurn value, std::size_t) override { turn = value; }
  [[nodiscard]] Size maximumOutputSize() const override { return {}; }
  void endProcessing() override { ++ends; }
  [[nodiscard]] bool shouldIgnoreUpdatesToThisTarget() const override { return ignoresUpdates_; }
  [[nodiscard]] bool enabled() const override { return true; }
  [[nodiscard]] bool wantsMonochromeInput() const override { return false; }
  void setCurrentlyReceivingMonochromeInput(bool) override {}

  std::vector<std::int64_t> times;
  std::shared_ptr<GPUImageFramebuffer> last;
  int ends = 0;
  Size size;
  GPUImageInputTurn turn = kGPUImageTurnNone;

 private:
  const bool ignoresUpdates_;
};

/// A source of pictures, and a target for what a filter makes of them.
class GpuTest : public testing::Test {
 protected:
  void connect(const std::shared_ptr<GPUImageFilter>& filter) {
    source_->addTarget(filter);
    filter->addTarget(sink_);
  }
  void send(std::int64_t time = 0) { source_->send(*picture_, MediaTime::make(time, 30)); }

  const std::shared_ptr<PictureSource> source_ = std::make_shared<PictureSource>();
  const std::shared_ptr<Recorder> sink_ = std::make_shared<Recorder>();
  const std::shared_ptr<PixelBuffer> picture_ = samplePicture(PixelFormat::BGRA, 32, 18);
};

}  // namespace zellive::test
