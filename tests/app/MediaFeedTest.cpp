#include "apps/zellive/MediaFeed.h"

#include <gtest/gtest.h>

#include "apps/zellive/Pacer.h"
#include "apps/zellive/TestCardSource.h"

namespace zellive::tool {
namespace {

using namespace std::chrono_literals;

/// Counts the sound and notes the sound clock at each picture.
struct RecordingSink : MediaSink {
  void pushAudio(std::span<const std::uint8_t> pcm) override {
    samples += static_cast<std::int64_t>(pcm.size() / 2);
    largest = std::max(largest, pcm.size() / 2);
  }
  void pushVideo(std::shared_ptr<PixelBuffer> picture) override {
    stamps.push_back(samples);
    if (keep) {
      kept.push_back(std::move(picture));
    }
  }
  std::int64_t samples = 0;
  std::size_t largest = 0;
  std::vector<std::int64_t> stamps;
  bool keep = false;
  std::vector<std::shared_ptr<PixelBuffer>> kept;
};

TEST(MediaFeedTest, PushesEachPictureWhenItsSoundIsHeard) {
  for (const std::uint64_t rate : {1U, 24U, 25U, 30U, 120U}) {
    const auto source = TestCardSource::create({64, 48});
    RecordingSink sink;
    MediaFeed feed(*source, sink, rate);
    while (sink.samples < 10 * sampleRate) {
      const auto promised = feed.next();
      ASSERT_TRUE(feed.step());
      ASSERT_EQ(feed.position(), promised);
      ASSERT_EQ(timeOfSamples(sink.samples), promised);
    }
    EXPECT_LE(sink.largest, 1024U);
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
  while (sink.samples < 2 * sampleRate) {
    ASSERT_TRUE(feed.step());
  }
  const auto held = sink.kept.size();
  EXPECT_LE(held, 8U);
  EXPECT_GT(feed.skipped(), 40);
  sink.kept.clear();
  ASSERT_TRUE(feed.step());
  while (sink.samples < 3 * sampleRate && sink.kept.empty()) {
    ASSERT_TRUE(feed.step());
  }
  EXPECT_FALSE(sink.kept.empty()) << "pictures do not go on when the encoder has caught up";
}

/// Media with an end.
struct ShortSource : MediaSource {
  PictureSize pictureSize() const override { return {16, 16}; }
  double frameRate() const override { return 25; }
  void readAudio(std::span<std::int16_t> samples) override { std::fill(samples.begin(), samples.end(), 1); }
  std::shared_ptr<PixelBuffer> pictureAt(MediaTime time) override { return time < 1s ? picture : nullptr; }
  std::shared_ptr<PixelBuffer> picture = PixelBuffer::create(PixelFormat::Planar, 16, 16);
};

TEST(MediaFeedTest, StopsAtTheEndAndRepeatsAStillPicture) {
  ShortSource source;
  RecordingSink sink;
  sink.keep = true;
  MediaFeed feed(source, sink, 25);
  int steps = 0;
  while (feed.step()) {
    ASSERT_LT(++steps, 1000);
  }
  EXPECT_EQ(sink.stamps.size(), 25U) << "the same picture pushed again waits for nobody";
  const auto end = sink.samples;
  feed.stepSilence();
  EXPECT_EQ(feed.position(), timeOfSamples(end + 1024));
}

TEST(PacerTest, KeepsTimeAndForgivesLongStalls) {
  Pacer pacer(200ms);
  pacer.start(1000s);
  EXPECT_EQ(pacer.due(0s, 1000s), 1000s);
  EXPECT_EQ(pacer.due(5s, 1001s), 1005s) << "early: wait";
  EXPECT_EQ(pacer.due(5s, 1005s + 150ms), 1005s) << "a little late: catch up";
  EXPECT_EQ(pacer.due(5s, 1035s), 1035s - 200ms) << "very late: a short burst";
  EXPECT_EQ(pacer.due(6s, 1035s), 1036s - 200ms) << "and then in time again, from there on";
}

}  // namespace
}  // namespace zellive::tool
