#include "apps/zellive/MediaFeed.h"

#include <gtest/gtest.h>

#include "apps/zellive/Pacer.h"
#include "apps/zellive/TestCardSource.h"

namespace zellive::tool {
namespace {

using namespace std::chrono_literals;

/// Counts the sound, notes the sound clock at each picture and may hold on to pictures like a slow encoder.
struct RecordingSink : MediaSink {
  void pushAudio(std::span<const std::uint8_t> pcm) override { samples += static_cast<std::int64_t>(pcm.size() / 2); }
  void pushVideo(std::shared_ptr<PixelBuffer> picture) override {
    stamps.push_back(samples);
    kept.push_back(keep ? std::move(picture) : nullptr);
  }
  std::int64_t samples = 0;
  std::vector<std::int64_t> stamps;
  bool keep = false;
  std::vector<std::shared_ptr<PixelBuffer>> kept;
};

TEST(MediaFeedTest, PushesEachPictureWhenItsSoundIsHeard) {
  for (const std::uint64_t rate : {1U, 24U, 120U}) {
    const auto source = TestCardSource::create({64, 48});
    RecordingSink sink;
    MediaFeed feed(*source, sink, rate);
    while (sink.samples < 10 * sampleRate) {
      const auto promised = feed.next();
      ASSERT_LE(promised - feed.position(), 22ms) << "sound goes in small blocks";
      ASSERT_TRUE(feed.step());
      ASSERT_EQ(timeOfSamples(sink.samples), promised);
    }
    ASSERT_GE(sink.stamps.size(), 9 * rate);
    for (std::size_t i = 0; i < sink.stamps.size(); ++i) {
      const auto own = static_cast<std::int64_t>(i) * sampleRate / static_cast<std::int64_t>(rate);
      ASSERT_EQ(sink.stamps[i], own + MediaFeed::soundDelay) << "picture " << i << " at " << rate << " fps";
    }
  }
}

TEST(MediaFeedTest, LeavesPicturesOutWhileTheEncoderHoldsTooMany) {
  const auto source = TestCardSource::create({64, 48});
  RecordingSink sink;
  sink.keep = true;
  MediaFeed feed(*source, sink, 30);
  const auto feedUntil = [&](std::int64_t second) {
    while (sink.samples < second * sampleRate) {
      ASSERT_TRUE(feed.step());
    }
  };
  feedUntil(2);
  EXPECT_EQ(sink.kept.size(), 5U);
  EXPECT_GT(feed.skipped(), 40);
  sink.kept.clear();
  feedUntil(3);
  EXPECT_FALSE(sink.kept.empty()) << "pictures do not go on when the encoder has caught up";
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
