#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "zellive/gpu/GPUImageInput.h"

namespace zellive {

/// Where a source would send its sound along with its pictures.
class GPUImageAudioEncodingTarget {
 public:
  virtual ~GPUImageAudioEncodingTarget() = default;
  [[nodiscard]] virtual bool hasAudioTrack() const = 0;
  virtual void setHasAudioTrack(bool hasAudioTrack) = 0;
};

/// A source of frames: hands each one to its targets, in the order in which they were added. It keeps its targets
/// alive.
///
/// Any thread, unless an operation says otherwise. Changes of targets wait for the video-processing queue, so that they
/// happen between frames; made from inside a frame, they count from the next one on.
class GPUImageOutput : public std::enable_shared_from_this<GPUImageOutput> {
 public:
  using FrameProcessingCompletionBlock = std::function<void(GPUImageOutput& output, MediaTime frameTime)>;

  virtual ~GPUImageOutput();
  GPUImageOutput(const GPUImageOutput&) = delete;
  GPUImageOutput& operator=(const GPUImageOutput&) = delete;

  /// What was rendered last, lent; null between frames.
  [[nodiscard]] virtual std::shared_ptr<GPUImageFramebuffer> framebufferForOutput() const;
  /// Drops it without unlocking it.
  void removeOutputFramebuffer();

  /// Queue: hands the output framebuffer to one target.
  void setInputFramebufferForTarget(GPUImageInput& target, std::size_t index);
  /// Queue: hands it to every target.
  void notifyTargetsAboutNewOutputTexture();

  [[nodiscard]] std::vector<std::shared_ptr<GPUImageInput>> targets() const;
  /// Connects the target at the slot that it names; a target that asks to be spared updates gets no frames. Adding one
  /// twice has no effect.
  void addTarget(const std::shared_ptr<GPUImageInput>& target);
  void addTarget(const std::shared_ptr<GPUImageInput>& target, std::size_t textureLocation);
  /// Disconnects it and tells it that processing has ended. No effect for one that is not connected.
  void removeTarget(const std::shared_ptr<GPUImageInput>& target);
  /// Disconnects all, without telling them that processing has ended.
  void removeAllTargets();
  /// Whether every target wants one channel only; true without targets.
  [[nodiscard]] bool allTargetsWantMonochromeData() const { return allTargetsWantMonochromeData_; }

  /// Called on the queue with each frame, after rendering and before the targets get it.
  void setFrameProcessingCompletionBlock(FrameProcessingCompletionBlock block);
  /// A target that gets no frames. Held weakly.
  [[nodiscard]] std::shared_ptr<GPUImageInput> targetToIgnoreForUpdates() const;
  void setTargetToIgnoreForUpdates(const std::shared_ptr<GPUImageInput>& target);
  /// For framebuffers rendered from now on; the present one takes over how it is wrapped.
  [[nodiscard]] GPUTextureOptions outputTextureOptions() const;
  void setOutputTextureOptions(const GPUTextureOptions& options);

  [[nodiscard]] bool enabled() const { return enabled_; }
  void setEnabled(bool enabled) { enabled_ = enabled; }
  [[nodiscard]] bool shouldSmoothlyScaleOutput() const { return shouldSmoothlyScaleOutput_; }
  void setShouldSmoothlyScaleOutput(bool smoothly) { shouldSmoothlyScaleOutput_ = smoothly; }
  [[nodiscard]] bool shouldIgnoreUpdatesToThisTarget() const { return shouldIgnoreUpdatesToThisTarget_; }
  void setShouldIgnoreUpdatesToThisTarget(bool ignore) { shouldIgnoreUpdatesToThisTarget_ = ignore; }
  [[nodiscard]] std::shared_ptr<GPUImageAudioEncodingTarget> audioEncodingTarget() const;
  /// Gives the target an audio track if it has none.
  void setAudioEncodingTarget(std::shared_ptr<GPUImageAudioEncodingTarget> target);

  /// These do nothing for a plain source; filters have their own.
  virtual void forceProcessingAtSize(Size) {}
  virtual void forceProcessingAtSizeRespectingAspectRatio(Size) {}
  virtual void useNextFrameForImageCapture() {}
  [[nodiscard]] virtual std::unique_ptr<Image> newCGImageFromCurrentlyProcessedOutput() { return nullptr; }
  [[nodiscard]] virtual bool providesMonochromeOutput() const { return false; }

 protected:
  struct Target {
    std::shared_ptr<GPUImageInput> input;
    std::size_t index = 0;
  };

  GPUImageOutput();

  void setOutputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer);
  /// The targets as they are now; later changes make a new list.
  [[nodiscard]] std::shared_ptr<const std::vector<Target>> connections() const;
  /// Calls `visit(input, index)` for every target but the one to ignore.
  template <typename Visit>
  void forEachUpdatedTarget(Visit&& visit) const {
    const auto list = connections();
    const auto ignored = targetToIgnoreForUpdates();
    for (const auto& target : *list) {
      if (target.input != ignored) {
        visit(*target.input, target.index);
      }
    }
  }
  [[nodiscard]] std::shared_ptr<const FrameProcessingCompletionBlock> frameProcessingCompletionBlock() const;

  /// Size of the input, after its turn.
  [[nodiscard]] Size inputTextureSize() const;
  void setInputTextureSize(Size size);
  struct ForcedSize {
    bool override = false;
    Size maximum;
  };
  [[nodiscard]] ForcedSize forcedSize() const;
  void setForcedSize(ForcedSize forced);

 private:
  void setTargets(std::vector<Target> targets);

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<GPUImageFramebuffer> outputFramebuffer_;
  std::shared_ptr<const std::vector<Target>> targets_;
  Size inputTextureSize_;
  ForcedSize forcedSize_;
  std::weak_ptr<GPUImageInput> targetToIgnoreForUpdates_;
  std::shared_ptr<const FrameProcessingCompletionBlock> frameProcessingCompletionBlock_;
  std::shared_ptr<GPUImageAudioEncodingTarget> audioEncodingTarget_;
  GPUTextureOptions outputTextureOptions_;

  std::atomic<bool> allTargetsWantMonochromeData_ = true;
  std::atomic<bool> shouldSmoothlyScaleOutput_ = false;
  std::atomic<bool> shouldIgnoreUpdatesToThisTarget_ = false;
  std::atomic<bool> enabled_ = true;
};

}  // namespace zellive
