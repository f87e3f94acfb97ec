// Publishes a moving picture and a tone:
//
//   push_test_picture rtmp://127.0.0.1/live/test [SECONDS]
//
// Exit status: 0 when the stream was up, 1 when it was not, 2 for a wrong command line.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numbers>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "zellive/session/ZelLiveSession.h"

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kWidth = 1280;
constexpr std::size_t kHeight = 720;
constexpr int kSampleRate = 48000;
constexpr int kSamplesPerTick = kSampleRate / 50;
constexpr auto kTick = 20ms;

/// Hears from the session on the library's main queue.
class Listener : public zellive::ZelLiveSessionDelegate {
 public:
  std::atomic<bool> connected = false;

  void liveSessionLiveStateDidChange(zellive::ZelLiveSession&, std::uint64_t state) override {
    std::printf("state %llu\n", static_cast<unsigned long long>(state));
    connected = connected || state == zellive::ZelStreamSocketStatusConnected;
  }
  void liveSessionErrorCode(zellive::ZelLiveSession&, std::uint64_t code) override {
    std::printf("error %llu\n", static_cast<unsigned long long>(code));
  }
  void liveSessionDebugInfo(zellive::ZelLiveSession&, const zellive::ZelLiveDebug& info) override {
    std::printf("%.0f kbit/s, %lld frames sent\n", info.currentBandwidth * 8 / 1000,
                static_cast<long long>(info.totalFrame));
  }
};

/// A grey ramp that drifts, with a white bar moving across it once in four seconds.
std::shared_ptr<zellive::PixelBuffer> picture(zellive::PixelBufferPool& pool, double seconds) {
  auto buffer = pool.acquire();
  if (!buffer) {
    return nullptr;
  }
  const auto& luma = buffer->plane(0);
  const auto bar = static_cast<std::size_t>(std::fmod(seconds / 4, 1) * kWidth);
  const auto drift = static_cast<std::size_t>(seconds * 60);
  for (std::size_t y = 0; y < luma.height; ++y) {
    std::uint8_t* row = luma.base + y * luma.bytesPerRow;
    for (std::size_t x = 0; x < luma.width; ++x) {
      row[x] = x - bar < 32 ? 235 : static_cast<std::uint8_t>(16 + (x + y + drift) / 4 % 160);
    }
  }
  const auto& chroma = buffer->plane(1);
  std::fill_n(chroma.base, chroma.height * chroma.bytesPerRow, std::uint8_t{128});
  return buffer;
}

/// 20 ms of a quiet 440 Hz tone.
std::vector<std::int16_t> tone(int tick) {
  std::vector<std::int16_t> samples(kSamplesPerTick);
  for (int i = 0; i < kSamplesPerTick; ++i) {
    const double t = static_cast<double>(tick * kSamplesPerTick + i) / kSampleRate;
    samples[static_cast<std::size_t>(i)] = static_cast<std::int16_t>(4000 * std::sin(2 * std::numbers::pi * 440 * t));
  }
  return samples;
}

std::span<const std::uint8_t> bytesOf(const std::vector<std::int16_t>& samples) {
  return {reinterpret_cast<const std::uint8_t*>(samples.data()), samples.size() * sizeof(std::int16_t)};
}

/// Pushes sound and pictures in real time. The stream's clock is the sound's, so each picture follows its sound.
void push(zellive::ZelLiveSession& session, double frameRate, int seconds) {
  const auto pool = zellive::PixelBufferPool::create(zellive::PixelFormat::BiPlanarVideoRange, kWidth, kHeight);
  const auto start = std::chrono::steady_clock::now();
  double nextPicture = 0;
  for (int tick = 0; tick * kTick < std::chrono::seconds(seconds); ++tick) {
    std::this_thread::sleep_until(start + tick * kTick);
    session.pushAudio(bytesOf(tone(tick)));
    const double now = tick * std::chrono::duration<double>(kTick).count();
    if (now >= nextPicture) {
      nextPicture += 1 / frameRate;
      session.pushVideo(picture(*pool, now));
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fprintf(stderr, "usage: %s rtmp://HOST/APP/STREAM [SECONDS]\n", argv[0]);
    return 2;
  }
  constexpr auto kSources = zellive::ZelLiveInputAudio | zellive::ZelLiveInputVideo;
  const auto audio = zellive::ZelLiveAudioConfiguration::defaultConfiguration();
  const auto video = zellive::ZelLiveVideoConfiguration::defaultConfigurationForQuality(1, kSources);
  video->setVideoSize({kWidth, kHeight});

  const auto listener = std::make_shared<Listener>();
  const auto session = zellive::ZelLiveSession::create(audio, video, kSources);
  session->setDelegate(listener);
  session->setShowDebugInfo(true);
  session->setInputVideoFrameRate(video->videoFrameRate());

  const auto stream = std::make_shared<zellive::ZelLiveStreamInfo>();
  stream->setUrl(argv[1]);
  stream->audioConfiguration = audio;
  stream->videoConfiguration = video;
  session->startLive(stream);
  push(*session, static_cast<double>(video->videoFrameRate()), argc > 2 ? std::atoi(argv[2]) : 10);
  session->stopLive();
  session->waitUntilStopped(2s);
  return listener->connected ? 0 : 1;
}
