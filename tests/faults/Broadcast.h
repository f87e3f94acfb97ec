#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/transport/Fixtures.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::test {

/// A session for pushed sound and small pictures which writes its story down, and whose publisher reports an error at
/// its second attempt.
class Broadcast : public ZelLiveSession {
 public:
  static constexpr int width = 160;
  static constexpr int height = 90;

  static std::shared_ptr<Broadcast> start(const std::shared_ptr<const Platform>& platform, const std::string& url,
                                          const RtmpOptions& limits) {
    const auto video = std::make_shared<ZelLiveVideoConfiguration>(
        ZelLiveVideoQualityMedium, ZelLiveInputAudio | ZelLiveInputVideo, 1, platform->device);
    video->setVideoSize({width, height});
    video->setVideoFrameRate(24);
    video->setVideoMaxKeyFrameInterval(24);
    video->setVideoBitRate(800'000);
    const std::shared_ptr<Broadcast> session(new Broadcast(video, platform, limits));
    session->observeApplication();
    session->setInputVideoFrameRate(24);
    session->setVideoEncoderOptions({"libx264", "ultrafast"});
    session->startLive(streamAt(url));
    return session;
  }

  void socketStatus(ZelStreamRtmpSocket& socket, std::uint64_t status) override {
    story->noteStatus(status);
    ZelLiveSession::socketStatus(socket, status);
  }
  void socketDidErrorCode(ZelStreamRtmpSocket& socket, std::uint64_t code) override {
    story->noteError(code);
    ZelLiveSession::socketDidErrorCode(socket, code);
  }
  void socketRequestNewUrl(ZelStreamRtmpSocket& socket) override {
    story->note('U');
    ZelLiveSession::socketRequestNewUrl(socket);
  }

  const std::shared_ptr<Story> story = std::make_shared<Story>();
  /// Frames that the publisher holds.
  const std::shared_ptr<std::atomic<int>> queued = std::make_shared<std::atomic<int>>(0);

 protected:
  std::shared_ptr<ZelStreamRtmpSocket> makeSocket(std::shared_ptr<ZelLiveStreamInfo> info) override {
    return ZelStreamRtmpSocket::create(std::move(info), 1, 2, platform_,
                                       [limits = limits_](const auto&, const auto& platform, const auto& queue) {
                                         return makeLibrtmpConnection(limits, platform, queue);
                                       });
  }
  void pushSendBuffer(std::shared_ptr<const ZelFrame> frame) override {
    ++*queued;
    const auto* raw = frame.get();
    ZelLiveSession::pushSendBuffer({raw, [kept = std::move(frame), count = queued](const ZelFrame*) mutable {
                                      kept.reset();
                                      --*count;
                                    }});
  }

 private:
  Broadcast(VideoConfiguration video, const std::shared_ptr<const Platform>& platform, const RtmpOptions& limits)
      : ZelLiveSession(ZelLiveAudioConfiguration::defaultConfiguration(), std::move(video),
                       ZelLiveInputAudio | ZelLiveInputVideo, platform),
        platform_(platform),
        limits_(limits) {}

  const std::shared_ptr<const Platform> platform_;
  const RtmpOptions limits_;
};

/// Pushes a tone and noise to sessions in real time, a unit of 1024 samples a beat and a picture every other.
class Feed {
 public:
  Feed() {
    std::minstd_rand random;
    for (auto& picture : pictures_) {
      picture = PixelBuffer::create(PixelFormat::Planar, Broadcast::width, Broadcast::height);
      for (std::size_t at = 0; at < picture->planeCount(); ++at) {
        const auto& plane = picture->plane(at);
        std::generate_n(plane.base, plane.bytesPerRow * plane.height,
                        [&] { return static_cast<std::uint8_t>(at == 0 ? 64 + random() % 128 : 128); });
      }
    }
    for (std::size_t at = 0; at < tone_.size(); ++at) {
      tone_[at] = at % 128 < 64 ? 0x0F : 0xF0;
    }
    thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
  }

  void setSessions(std::vector<std::shared_ptr<Broadcast>> sessions) {
    const std::lock_guard lock(mutex_);
    sessions_ = std::move(sessions);
  }
  void waitBeats(int count) {
    std::unique_lock lock(mutex_);
    beat_.wait(lock, [this, until = beats_ + count] { return beats_ >= until; });
  }

 private:
  void run(const std::stop_token& stop) {
    constexpr std::chrono::nanoseconds beat{1'000'000'000LL * 1024 / 48000};
    for (auto due = std::chrono::steady_clock::now(); !stop.stop_requested();) {
      // A machine that stood still for a while does not get it all at once.
      due = std::max(due + beat, std::chrono::steady_clock::now() - beat);
      std::this_thread::sleep_until(due);
      const std::lock_guard lock(mutex_);
      ++beats_;
      for (const auto& session : sessions_) {
        session->pushAudio(tone_);
        if (beats_ % 2 == 0) {
          session->pushVideo(pictures_[static_cast<std::size_t>(beats_ / 2) % pictures_.size()]);
        }
      }
      beat_.notify_all();
    }
  }

  std::array<std::shared_ptr<PixelBuffer>, 8> pictures_;
  std::array<std::uint8_t, 2048> tone_{};
  std::mutex mutex_;
  std::condition_variable beat_;
  std::vector<std::shared_ptr<Broadcast>> sessions_;
  int beats_ = 0;
  std::jthread thread_;
};

}  // namespace zellive::test
