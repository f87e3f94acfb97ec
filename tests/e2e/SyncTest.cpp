#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <thread>

#include "apps/zellive/MediaFeed.h"
#include "apps/zellive/Pacer.h"
#include "apps/zellive/StreamSettings.h"
#include "apps/zellive/TestCardSource.h"
#include "tests/e2e/Beats.h"
#include "tests/e2e/Tool.h"
#include "tests/support/Event.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::test {
namespace {

using namespace tool;

/// Hands media to a session no faster than its encoder takes it, so that ten minutes pass as quickly as they can
/// without a picture being lost.
struct EagerSink : MediaSink, ZelLiveSessionDelegate {
  explicit EagerSink(std::shared_ptr<ZelLiveSession> target) : session(std::move(target)) {}
  void pushAudio(std::span<const std::uint8_t> pcm) override { session->pushAudio(pcm); }
  void pushVideo(std::shared_ptr<PixelBuffer> picture) override {
    for (int count = 0; (count = *waiting) >= 2;) {
      waiting->wait(count);
    }
    ++*waiting;
    const auto width = picture->width();
    const auto height = picture->height();
    session->pushVideo(PixelBuffer::crop(std::move(picture), width, height, [count = waiting] {
      --*count;
      count->notify_all();
    }));
  }
  void liveSessionLiveStateDidChange(ZelLiveSession&, std::uint64_t state) override {
    if (state == ZelStreamSocketStatusConnected) {
      connected.set();
    }
  }

  const std::shared_ptr<ZelLiveSession> session;
  const std::shared_ptr<std::atomic<int>> waiting = std::make_shared<std::atomic<int>>(0);
  Event connected;
};

TEST_F(ServerTest, SoundAndPictureStayTogetherForTenMinutes) {
  constexpr auto length = 600s;
  constexpr PictureSize size{160, 90};
  PublishOptions options;
  options.bitRate = 200'000;
  const auto info = std::make_shared<ZelLiveStreamInfo>();
  info->setUrl(server->url("sync"));
  info->audioConfiguration = ZelLiveAudioConfiguration::defaultConfiguration();
  info->videoConfiguration = makeVideoConfiguration(options, size, 0);
  const auto rate = info->videoConfiguration->videoFrameRate();
  const auto session = ZelLiveSession::create(info->audioConfiguration, info->videoConfiguration, captureType);
  const auto sink = std::make_shared<EagerSink>(session);
  session->setDelegate(sink);
  session->setInputVideoFrameRate(rate);
  session->setVideoEncoderOptions({"libx264", "ultrafast"});
  session->startLive(info);
  ASSERT_TRUE(sink->connected.wait());

  const auto source = TestCardSource::create(size);
  MediaFeed feed(*source, *sink, rate);
  while (feed.position() < length) {
    ASSERT_TRUE(feed.step());
  }
  // The last seconds in real time: the send buffer empties meanwhile.
  Pacer pacer(1s);
  const auto clock = [] { return std::chrono::steady_clock::now().time_since_epoch(); };
  pacer.start(clock() - feed.position());
  while (feed.position() < length + 4s) {
    std::this_thread::sleep_for(pacer.due(feed.next(), clock()) - clock());
    ASSERT_TRUE(feed.step());
  }
  ASSERT_EQ(feed.skipped(), 0);
  session->stopLive();
  EXPECT_TRUE(session->waitUntilStopped(2s));
  const auto measured = offsets(server->finishedRecording("sync"));
  ASSERT_GE(measured.size(), 600U);
  for (std::size_t i = 0; i < measured.size(); ++i) {
    ASSERT_LE(std::abs(measured[i]), 0.040) << "flash " << i;
  }
  const auto [least, most] = std::ranges::minmax(measured);
  std::printf("picture later than sound by %.1f to %.1f ms in %zu flashes\n", least * 1000, most * 1000,
              measured.size());
}

}  // namespace
}  // namespace zellive::test
