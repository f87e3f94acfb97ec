#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "zellive/platform/VideoCompressionSession.h"

namespace zellive::test {

/// Compression sessions that write down what is asked of them and answer as a test says.
class FakeCompression : public VideoCompressionService {
 public:
  struct Submission {
    std::int64_t presentationTime;
    VideoFrameProperties properties;
    std::uint64_t reference;
    std::weak_ptr<PixelBuffer> picture;
    std::size_t session;  ///< Counted from 1.
  };
  struct Rate {
    std::int64_t average;
    double limitBytes;
    std::int64_t limitSeconds;
  };

  std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings& settings,
                                                  VideoCompressionSession::OutputHandler handler,
                                                  int& status) override {
    asked.push_back(settings);
    if (createStatus != 0) {
      status = createStatus;
      return nullptr;
    }
    status = 0;
    output = std::move(handler);
    ++sessions;
    return std::make_unique<Session>(*this);
  }
  std::vector<VideoEncoderDescription> available() override { return {}; }

  int createStatus = 0;
  int encodeStatus = 0;
  bool answers = true;  ///< Every submission is answered with `sample` at once.
  const VideoSample* sample = nullptr;

  std::vector<VideoCompressionSettings> asked;
  std::vector<Submission> submissions;
  std::vector<Rate> rates;
  int completions = 0;
  int alive = 0;
  std::size_t sessions = 0;
  VideoCompressionSession::OutputHandler output;

 private:
  class Session : public VideoCompressionSession {
   public:
    explicit Session(FakeCompression& owner) : owner_(owner) { ++owner_.alive; }
    ~Session() override { --owner_.alive; }
    int encodeFrame(const std::shared_ptr<PixelBuffer>& picture, std::int64_t presentationTime,
                    VideoFrameProperties properties, std::uint64_t reference) override {
      owner_.submissions.push_back({presentationTime, properties, reference, picture, owner_.sessions});
      if (owner_.encodeStatus == 0 && owner_.answers) {
        owner_.output(reference, 0, owner_.sample);
      }
      return owner_.encodeStatus;
    }
    void completeFrames() override { ++owner_.completions; }
    void setBitRate(std::int64_t average, double limitBytes, std::int64_t limitSeconds) override {
      owner_.rates.push_back({average, limitBytes, limitSeconds});
    }
    std::string encoderName() const override { return "fake"; }

   private:
    FakeCompression& owner_;
  };
};

}  // namespace zellive::test
