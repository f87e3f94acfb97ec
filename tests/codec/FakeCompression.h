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
/// else with one slice. With a real service behind them they only pass on what they are not told to refuse.
struct FakeCompression : VideoCompressionService {
  struct Session : VideoCompressionSession {
    explicit Session(FakeCompression& owner) : fake(owner) { ++fake.alive; }
    ~Session() override { --fake.alive; }
    int encodeFrame(const std::shared_ptr<PixelBuffer>& picture, std::int64_t presentationTime,
                    VideoFrameProperties properties, std::uint64_t reference) override {
      const bool key = properties.forceKeyFrame;
      fake.trace += !key ? 'p' : properties.leadingSei ? 'S' : 'K';
      fake.lastTime = presentationTime;
      fake.onPicture(picture);
      if (real) {
        return fake.trace.size() % 20 == 0 ? -12902
                                           : real->encodeFrame(picture, presentationTime, properties, reference);
      }
      if (fake.encodeStatus == 0) {
        const std::vector<std::uint8_t> slice{0, 0, 0, 1, static_cast<std::uint8_t>(key ? 0x65 : 0x41)};
        const VideoSample plain{Data::copyOf(slice), key, Data::copyOf(slice), Data::copyOf(slice)};
        output(reference, 0, fake.sample != nullptr ? fake.sample : &plain);
      }
      return fake.encodeStatus;
    }
    void completeFrames() override { real ? real->completeFrames() : void(++fake.completions); }
    void setBitRate(std::int64_t average, double limitBytes, std::int64_t seconds) override {
      real ? real->setBitRate(average, limitBytes, seconds)
           : void(fake.rates.emplace_back(average, limitBytes, seconds));
    }
    [[nodiscard]] std::string encoderName() const override { return "fake"; }
    FakeCompression& fake;
    OutputHandler output;
    std::unique_ptr<VideoCompressionSession> real;
  };

  std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings& settings,
                                                  VideoCompressionSession::OutputHandler handler,
                                                  int& status) override {
    ++made;
    onMaking();
    asked = settings;
    output = handler;
    auto session = std::make_unique<Session>(*this);
    session->output = handler;
    status = createStatus;
    session->real = behind ? behind->create(settings, std::move(handler), status) : nullptr;
    return status == 0 ? std::move(session) : nullptr;
  }
  std::vector<VideoEncoderDescription> available() override { return {}; }

  std::shared_ptr<VideoCompressionService> behind;
  int createStatus = 0;
  int encodeStatus = 0;
  const VideoSample* sample = nullptr;
  std::function<void()> onMaking = [] {};
  std::function<void(const std::shared_ptr<PixelBuffer>&)> onPicture = [](const auto&) {};
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
