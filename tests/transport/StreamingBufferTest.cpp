#include "zellive/transport/ZelStreamingBuffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "tests/transport/Fixtures.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

/// 'K' a key frame, 'P' a predicted frame, 'A' sound.
std::shared_ptr<const ZelFrame> makeFrame(char kind, std::uint64_t timestamp) {
  return kind == 'A' ? audio(timestamp) : video(timestamp, {kind == 'K'});
}

struct BufferReports : ZelStreamingBufferDelegate {
  void streamingBufferState(ZelStreamingBuffer&, ZelStreamingBufferState state) override { states.push_back(state); }
  void streamingBufferCount(ZelStreamingBuffer&, std::uint64_t count) override { counts.push_back(count); }
  std::vector<ZelStreamingBufferState> states;
  std::vector<std::uint64_t> counts;
};

class StreamingBuffer : public ::testing::Test {
 protected:
  void make(ZelStreamingBuffer::AudioConfiguration audio = nullptr,
            ZelStreamingBuffer::VideoConfiguration video = nullptr) {
    buffer = ZelStreamingBuffer::create(std::move(audio), std::move(video), manual.platform());
    buffer->setDelegate(reports);
  }

  /// Brings exactly these frames into the queue: "K7" is a key frame at 7 ms.
  void fill(const std::string& frames) {
    for (std::size_t at = 0; at < frames.size(); at += 2) {
      buffer->appendObject(makeFrame(frames[at], static_cast<std::uint64_t>(frames[at + 1] - '0')));
    }
    pushThrough(5);
  }
  /// Younger frames that push as many out of the sorting stage.
  void pushThrough(int count) {
    for (int i = 0; i < count; ++i) {
      buffer->appendObject(makeFrame('A', 1'000'000));
    }
  }
  /// Empties the queue; what was there, as kinds and timestamps.
  std::string drain() {
    std::string text;
    while (const auto frame = buffer->popFirstObject()) {
      const auto* video = dynamic_cast<const ZelLiveVideoFrame*>(frame.get());
      text += (video == nullptr ? 'A' : video->isKeyFrame ? 'K' : 'P') + std::to_string(frame->timestamp) + ' ';
    }
    return text.empty() ? text : text.substr(0, text.size() - 1);
  }

  ManualPlatform manual;
  LogCapture log;
  std::shared_ptr<BufferReports> reports = std::make_shared<BufferReports>();
  std::shared_ptr<ZelStreamingBuffer> buffer;
};

TEST_F(StreamingBuffer, SizesItselfByMemoryAndRates) {
  struct Case {
    double gigabytes;
    std::uint64_t audioRate, videoRate, expected;
  };
  for (const Case& c : std::vector<Case>{
           {0.99, 96000, 800000, 6034},
           {1.0, 96000, 800000, 12068},
           {2.5, 96000, 800000, 24137},
           {3.9, 96000, 800000, 36205},
           {4.0, 96000, 800000, 60342},
           {0.5, 9600000, 800000000, 750},
           {4.0, 0, 0, 750},
       }) {
    SCOPED_TRACE(std::to_string(c.gigabytes) + " GB, video " + std::to_string(c.videoRate));
    manual.device->memory = static_cast<std::uint64_t>(c.gigabytes * (1 << 30));
    auto audio = std::make_shared<ZelLiveAudioConfiguration>();
    audio->setNumberOfChannels(1);
    audio->setAudioSampleRate(44100);
    audio->setAudioBitRate(c.audioRate);
    auto video = std::make_shared<ZelLiveVideoConfiguration>(1, 2, 1, manual.device);
    video->setVideoFrameRate(24);
    video->setVideoBitRate(c.videoRate);
    make(audio, video);
    EXPECT_EQ(buffer->maxCount(), c.expected);
  }
  EXPECT_EQ(log.count(LogLevel::Information, "memory: 2.5GB askMemory: 40960 bitCount: 365.714"), 1U);

  auto noChannels = std::make_shared<ZelLiveAudioConfiguration>();
  noChannels->setAudioSampleRate(std::numeric_limits<std::uint64_t>::max());
  noChannels->setAudioBitRate(1);
  make(noChannels);
  EXPECT_EQ(buffer->maxCount(), 750U) << "no block length: no audio frames";
  make();
  EXPECT_EQ(buffer->maxCount(), 750U);
}

TEST_F(StreamingBuffer, PutsFramesBackIntoOrder) {
  make();
  buffer->appendObject(nullptr);
  for (const std::uint64_t timestamp : {40, 20, 60, 10, 50}) {
    buffer->appendObject(makeFrame('P', timestamp));
  }
  EXPECT_EQ(drain(), "");
  buffer->appendObject(makeFrame('A', 30));
  EXPECT_EQ(drain(), "P10");
  pushThrough(5);
  EXPECT_EQ(drain(), "P20 A30 P40 P50 P60");
}

TEST_F(StreamingBuffer, DropsWhatTheViewerMissesLeast) {
  struct Case {
    const char* queued;
    std::uint64_t limit;
    const char* left;  // After one more frame ("A9") has entered the full queue.
    std::uint64_t counted;
  };
  const std::vector<Case> cases{
      {"K1P2A3P4K5P6", 7, "K1 P2 A3 P4 K5 P6 A9", 0},  // Not full.
      {"K1P2A3P4K5P6", 6, "K1 A3 K5 P6 A9", 2},        // The oldest group's predicted frames.
      {"K1A2K3P4P5K6", 6, "K1 A2 K3 K6 A9", 2},        // The first group has none: the second's.
      {"P1P2K3P4", 4, "K3 P4 A9", 2},                  // A group whose key frame is gone already.
      {"K1K1A2K3", 4, "A2 K3 A9", 2},                  // Key frames only: one picture's.
      {"K0K5A6K7", 4, "A6 K7 A9", 2},                  // Time 0 counts as no time yet.
      {"A1A2A3", 3, "A9", 0},                          // Sound only: everything, uncounted.
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.queued);
    make();
    fill(c.queued);
    buffer->setMaxCount(c.limit);
    buffer->appendObject(makeFrame('A', 9));
    buffer->setMaxCount(1000);
    EXPECT_EQ(drain(), c.left);
    EXPECT_EQ(buffer->takeLastDropFrames(), c.counted);
    EXPECT_EQ(buffer->lastDropFrames(), 0U);
  }
}

TEST_F(StreamingBuffer, AMemoryWarningDropsPredictedFramesAndAKeyFrame) {
  make();
  fill("K1P2A3P4K5P6");
  manual.notifications->post(notification::DidReceiveMemoryWarning);
  EXPECT_EQ(drain(), "A3 K5 P6");
  EXPECT_EQ(buffer->lastDropFrames(), 3U);
  EXPECT_EQ(log.count("Live: StreamingBuffer drop P Frame when memoryWarning"), 1U);
  EXPECT_EQ(log.count("Live: StreamingBuffer drop I Frame when memoryWarning"), 1U);
  buffer.reset();
  manual.notifications->post(notification::DidReceiveMemoryWarning);
  EXPECT_EQ(log.count("Live: receive memory warning"), 1U);
}

TEST_F(StreamingBuffer, ClearingKeepsTheSortingStage) {
  make();
  fill("P1P2P3");
  buffer->removeAllObject();
  EXPECT_EQ(log.count("Live: StreamingBuffer unSend buffer: 3"), 1U);
  EXPECT_EQ(buffer->count(), 0U);
  buffer->appendObject(makeFrame('K', 4));
  EXPECT_EQ(drain(), "K4") << "sorted among the frames that stayed";
}

TEST_F(StreamingBuffer, JudgesTheTrendOfFiveSamples) {
  struct Case {
    std::vector<std::size_t> samples;
    std::vector<ZelStreamingBufferState> states;
  };
  const std::vector<Case> cases{
      {{3, 5, 8, 9, 12}, {ZelStreamingBufferStateIncrease}},
      {{0, 0, 0, 0, 0}, {ZelStreamingBufferStateDecrease}},
      {{12, 12, 12, 12, 12}, {}},  // The first sample rises from 0.
      {{3, 5, 4, 6, 7}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.samples));
    make();
    *reports = {};
    pushThrough(5);  // Starts the timer and takes the first sample, of an empty queue.
    manual.advance(4s);
    ASSERT_EQ(reports->counts.size(), 1U);
    *reports = {};
    for (const std::size_t sample : c.samples) {
      while (buffer->count() > sample) {
        ASSERT_TRUE(buffer->popFirstObject());
      }
      pushThrough(static_cast<int>(sample - buffer->count()));
      manual.advance(1s);
    }
    EXPECT_EQ(reports->states, c.states);
    EXPECT_EQ(reports->counts, (std::vector<std::uint64_t>{c.samples.back()}));
  }
}

TEST_F(StreamingBuffer, TellsHowLongTheQueueHasBeenGrowing) {
  std::vector<std::int64_t> posted;
  const auto observation = manual.notifications->addObserver(
      notification::LiveBufferAccumulateTime,
      [&](const UserInfo& info) { posted.push_back(info.at("bufferAccumulateTime")); });
  make();
  const auto grow = [&](int seconds) {
    for (int i = 0; i < seconds; ++i) {
      pushThrough(1);
      manual.advance(1s);
    }
  };
  pushThrough(5);
  manual.advance(9s);
  EXPECT_EQ(posted, (std::vector<std::int64_t>{0, 0})) << "an empty queue is falling, and 0 is the least";
  grow(119);
  EXPECT_EQ(posted.back(), 115);
  reports->counts.clear();
  grow(6);
  EXPECT_EQ(posted.back(), 125);
  EXPECT_EQ(reports->counts.size(), 6U) << "every second from 120 s on";
  buffer.reset();
  manual.advance(10s);
  EXPECT_EQ(manual.time->delayedWork(), 0U) << "the timer ends with the buffer";
}

TEST(FrameList, KeepsOrderThroughWrappingAndRemoval) {
  ZelFrameList list;
  std::vector<std::uint64_t> model;
  std::mt19937 random(3);
  for (std::uint64_t step = 1; step < 5000; ++step) {
    const auto choice = random() % 16;
    if (choice < 9) {
      list.addObject(makeFrame('A', step));
      model.push_back(step);
    } else if (choice < 15) {
      const auto frame = list.popFirstObject();
      ASSERT_EQ(frame ? frame->timestamp : 0, model.empty() ? 0 : model.front());
      model.erase(model.begin(), model.begin() + (model.empty() ? 0 : 1));
    } else {
      std::vector<std::size_t> indices;
      for (std::size_t i = 0; i < model.size(); i += 1 + random() % 5) {
        indices.push_back(i);
        model[i] = 0;
      }
      list.removeObjectsAtIndices(indices);
      std::erase(model, 0);
    }
    ASSERT_EQ(list.count(), model.size());
    for (std::size_t i = 0; i < model.size(); ++i) {
      ASSERT_EQ(list[i]->timestamp, model[i]);
    }
  }
}

}  // namespace
}  // namespace zellive::test
