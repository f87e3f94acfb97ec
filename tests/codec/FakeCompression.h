#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "zellive/platform/VideoCompressionSession.h"

namespace zellive::test {

/// Compression sessions that write down what is asked of them and answer at once: with the sample that a test sets,
/// else with one slice.
struct FakeCompression : VideoCompressionService {
  struct Session : VideoCompressionSession {
    Session(FakeCompression& owner, OutputHandler handler) : fake(owner), output(std::move(handler)) { ++fake.alive; }
    ~Session() override { --fake.alive; }
    int encodeFrame(const std::shared_ptr<PixelBuffer>&, std::int64_t presentationTime, VideoFrameProperties properties,
                    std::uint64_t reference) override {
      const bool key = properties.forceKeyFrame;
      fake.trace += !key ? 'p' : properties.leadingSei ? 'S' : 'K';
      fake.lastTime = presentationTime;
      const std::vector<std::uint8_t> slice{0, 0, 0, 1, static_cast<std::uint8_t>(key ? 0x65 : 0x41)};
      const VideoSample plain{Data::copyOf(slice), key, Data::copyOf({slice}), Data::copyOf({slice})};
      if (fake.encodeStatus == 0) {
        output(reference, 0, fake.sample != nullptr ? fake.sample : &plain);
      }
      return fake.encodeStatus;
    }
    void completeFrames() override { ++fake.completions; }
    void setBitRate(std::int64_t average, double limitBytes, std::int64_t limitSeconds) override {
      fake.rates.emplace_back(average, limitBytes, limitSeconds);
    }
    [[nodiscard]] std::string encoderName() const override { return "fake"; }
    FakeCompression& fake;
    const OutputHandler output;
  };

  std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings& settings,
                                                  VideoCompressionSession::OutputHandler handler,
                                                  int& status) override {
    ++made;
    onMaking();
    asked = settings;
    output = handler;
    status = createStatus;
    return status == 0 ? std::make_unique<Session>(*this, std::move(handler)) : nullptr;
  }
  std::vector<VideoEncoderDescription> available() override { return {}; }

  int createStatus = 0;
  int encodeStatus = 0;
  const VideoSample* sample = nullptr;
  std::function<void()> onMaking = [] {};
  VideoCompressionSettings asked;
  VideoCompressionSession::OutputHandler output;  ///< Of the latest session.
  std::string trace;                              ///< A letter for each submission: plain, key, key led by an SEI.
  std::int64_t lastTime = 0;
  std::vector<std::tuple<std::int64_t, double, std::int64_t>> rates;
  int completions = 0;
  std::atomic<int> made = 0;
  std::atomic<int> alive = 0;
};

}  // namespace zellive::test
