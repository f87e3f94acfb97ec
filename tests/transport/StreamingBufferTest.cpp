#include "zellive/transport/ZelStreamingBuffer.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "tests/transport/Fixtures.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive::test {
namespace {

class StreamingBuffer : public ::testing::Test {
 protected:
  void make(ZelStreamingBuffer::AudioConfiguration audio = nullptr,
            ZelStreamingBuffer::VideoConfiguration video = nullptr) {
    buffer = ZelStreamingBuffer::create(std::move(audio), std::move(video), manual.platform());
    reports = std::make_shared<Reports>();
    buffer->setDelegate(reports);
  }
  /// "K7": a key frame at 7 ms; 'P' a predicted one, 'A' sound.
  void append(const std::string& frames) {
    for (std::size_t at = 0; at < frames.size(); at += 2) {
      const auto time = static_cast<std::uint64_t>(frames[at + 1] - '0');
      buffer->appendObject(frames[at] == 'A' ? audio(time) : video(time, {frames[at] == 'K'}));
    }
  }
  /// Younger frames that push as many out of the sorting stage.
  void pushThrough(std::size_t count) {
    for (; count > 0; --count) {
      buffer->appendObject(audio(1'000'000));
    }
  }
  /// Empties the queue; what was there.
  std::string drain() {
    std::string text;
    while (const auto frame = buffer->popFirstObject()) {
      const auto* video = dynamic_cast<const ZelLiveVideoFrame*>(frame.get());
      text += (video == nullptr ? 'A' : video->isKeyFrame ? 'K' : 'P') + std::to_string(frame->timestamp);
    }
    return text;
  }

  ManualPlatform manual;
  LogCapture log;
  std::shared_ptr<Reports> reports;
  std::shared_ptr<ZelStreamingBuffer> buffer;
};

TEST_F(StreamingBuffer, SizesItselfByMemoryAndRates) {
  const auto audio = std::make_shared<ZelLiveAudioConfiguration>();
  const auto video = std::make_shared<ZelLiveVideoConfiguration>(1, 2, 1, manual.device);
  audio->setNumberOfChannels(1);
  audio->setAudioSampleRate(44100);
  for (const auto& [megabytes, audioRate, videoRate, expected] : {std::tuple{512U, 96000U, 800000U, 6034U},
                                                                  {4096U, 96000U, 800000U, 60342U},
                                                                  {512U, 9600000U, 800000000U, 750U},
                                                                  {4096U, 0U, 0U, 750U}}) {
    manual.device->memory = std::uint64_t{megabytes} << 20;
    audio->setAudioBitRate(audioRate);
    video->setVideoBitRate(videoRate);
    make(audio, video);
    EXPECT_EQ(buffer->maxCount(), expected) << megabytes << " MB, video " << videoRate;
  }
}

TEST_F(StreamingBuffer, SortsAndDropsWhatTheViewerMissesLeast) {
  const std::tuple<const char*, std::uint64_t, const char*, std::uint64_t> cases[] = {
      // Queued; limit (0: none, but a memory warning); left after one more has entered the queue; counted as dropped.
      {"K1P2A3P4K5P6P7A8", 9, "K1P2A3P4K5P6P7A8A9", 0},  // Not full.
      {"K1P2A3P4K5P6", 6, "K1A3K5P6A9", 2},              // The oldest group's predicted frames.
      {"K1A2K3P4P5K6", 6, "K1A2K3K6A9", 2},              // The first group has none: the second's.
      {"P1P2K3P4", 4, "K3P4A9", 2},                      // A group whose key frame is gone already.
      {"K1K1A2K3", 4, "A2K3A9", 2},                      // Key frames only: one picture's.
      {"K0K5A6K7", 4, "A6K7A9", 2},                      // Time 0 counts as no time yet.
      {"A1A2A3", 3, "A9", 0},                            // Sound only: everything, uncounted.
      {"K1P2A3P4K5P6", 0, "A3K5P6A9", 3},                // A run of predicted frames and a key frame.
  };
  for (const auto& [queued, limit, left, counted] : cases) {
    for (std::size_t start = 0; start < 8; ++start) {  // Wherever the queue stands in its ring.
      SCOPED_TRACE(queued + std::to_string(start));
      make();
      pushThrough(5 + start);
      drain();
      append(queued);
      limit == 0 ? manual.notifications->post(notification::DidReceiveMemoryWarning) : buffer->setMaxCount(limit);
      append("A9");
      EXPECT_EQ(drain(), left);
      EXPECT_EQ(buffer->takeLastDropFrames(), counted);
      EXPECT_EQ(buffer->lastDropFrames(), 0U);
    }
  }
  make();
  buffer->appendObject(nullptr);
  append("P4P2P6P1P5");
  EXPECT_EQ(drain(), "");
  append("A3");
  EXPECT_EQ(drain(), "P1");
  pushThrough(3);
  buffer->removeAllObject();
  EXPECT_EQ(log.count("Live: StreamingBuffer unSend buffer: 3"), 1U);
  pushThrough(2);
  EXPECT_EQ(drain(), "P5P6") << "what was in the sorting stage stays";
}

TEST_F(StreamingBuffer, JudgesTheTrendOfFiveSamplesAndTellsHowLongItGrows) {
  constexpr auto rising = ZelStreamingBufferStateIncrease;
  const std::pair<std::vector<std::size_t>, Reports::Trends> cases[] = {
      {{3, 5, 8, 9, 12}, {rising}},
      {{0, 0, 0, 0, 0}, {ZelStreamingBufferStateDecrease}},
      {{12, 12, 12, 12, 12}, {}},  // The first sample rises from 0.
      {{3, 5, 4, 6, 7}, {}},
  };
  for (const auto& [samples, trends] : cases) {
    make();
    pushThrough(5);  // Starts the timer and takes the first sample, of an empty queue.
    manual.advance(4s);
    reports->trends.clear();
    reports->counts.clear();
    for (const std::size_t sample : samples) {
      while (buffer->count() > sample) {
        ASSERT_TRUE(buffer->popFirstObject());
      }
      pushThrough(sample - buffer->count());
      manual.advance(1s);
    }
    EXPECT_EQ(reports->trends, trends) << ::testing::PrintToString(samples);
    EXPECT_EQ(reports->counts, (std::vector<std::uint64_t>{samples.back()}));
  }

  std::vector<std::int64_t> posted;
  const auto observation = manual.notifications->addObserver(
      notification::LiveBufferAccumulateTime,
      [&](const UserInfo& info) { posted.push_back(info.at("bufferAccumulateTime")); });
  make();
  pushThrough(5);
  manual.advance(9s);
  EXPECT_EQ(posted, (std::vector<std::int64_t>{0, 0})) << "an empty queue is falling, and 0 is the least";
  for (int second = 0; second < 125; ++second) {
    pushThrough(1);
    manual.advance(1s);
  }
  EXPECT_EQ(posted.back(), 125);
  EXPECT_EQ(reports->counts.size(), 31U) << "every fifth second, and every one from 120 s on";
  buffer.reset();
  manual.advance(10s);
  EXPECT_EQ(manual.time->delayedWork(), 0U) << "the timer ends with the buffer";
}

}  // namespace
}  // namespace zellive::test
