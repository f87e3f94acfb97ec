#include "apps/zellive/MediaFeed.h"

#include <gtest/gtest.h>

#include "apps/zellive/Pacer.h"
#include "apps/zellive/TestCardSource.h"

namespace zellive::tool {
namespace {

using namespace std::chrono_literals;

/// Counts the sound, and holds on to pictures like a slow encoder.
struct RecordingSink : MediaSink {
  void pushAudio(std::span<const std::uint8_t> pcm) override { samples += static_cast<std::int64_t>(pcm.size() / 2); }
  void pushVideo(std::shared_ptr<PixelBuffer> picture) override {
    stamps.push_back(samples);
    held.push_back(std::move(picture));
  }
  std::int64_t samples = 0;
  std::vector<std::int64_t> stamps;
  std::vector<std::shared_ptr<PixelBuffer>> held;
};

TEST(MediaFeedTest, PushesEachPictureWhenItsSoundIsHeardUnlessTheEncoderHoldsTooMany) {
  constexpr std::int64_t rate = 36;
  const auto source = TestCardSource::create({64, 48});
  RecordingSink sink;
  MediaFeed feed(*source, sink, rate);
  const auto feedUntil = [&](std::int64_t second, bool hold) {
    while (sink.samples < second * sampleRate) {
      const auto promised = feed.next();
      ASSERT_LE(promised - feed.position(), 22ms) << "sound goes in small blocks";
      ASSERT_TRUE(feed.step());
      ASSERT_EQ(timeOfSamples(sink.samples), promised);
      sink.held.resize(hold ? sink.held.size() : 0);
    }
  };
  feedUntil(10, false);
  ASSERT_GE(sink.stamps.size(), 9U * rate);
  for (std::size_t i = 0; i < sink.stamps.size(); ++i) {
    ASSERT_EQ(sink.stamps[i], static_cast<std::int64_t>(i) * sampleRate / rate + MediaFeed::soundDelay) << i;
  }
  EXPECT_EQ(feed.skipped(), 0);
  feedUntil(12, true);
  EXPECT_EQ(sink.held.size(), 6U) << "a sixth of a second";
  EXPECT_GT(feed.skipped(), 2 * rate - 20);
  sink.stamps.clear();
  feedUntil(13, false);
  EXPECT_FALSE(sink.stamps.empty()) << "pictures go on when the encoder has caught up";
}

TEST(PacerTest, KeepsTimeAndForgivesLongStalls) {
  Pacer pacer(200ms);
  pacer.start(1000s);
  EXPECT_EQ(pacer.due(5s, 1001s), 1005s) << "early: wait";
  EXPECT_EQ(pacer.due(5s, 1005s + 150ms), 1005s) << "a little late: catch up";
  EXPECT_EQ(pacer.due(5s, 1035s), 1035s - 200ms) << "very late: a short burst";
  EXPECT_EQ(pacer.due(6s, 1035s), 1036s - 200ms) << "and then in time again, from there on";
}

}  // namespace
}  // namespace zellive::tool
