#include "zellive/codec/ZelHardwareVideoEncoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <condition_variable>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/codec/FakeCompression.h"
#include "tests/codec/Scenes.h"
#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Frames = std::vector<std::shared_ptr<const ZelLiveVideoFrame>>;

struct Collector : ZelVideoEncodingDelegate {
  void videoEncoderVideoFrame(ZelHardwareVideoEncoder&, std::shared_ptr<const ZelLiveVideoFrame> frame) override {
    frames.push_back(std::move(frame));
    if (onFrame) {
      onFrame();
    }
  }
  Frames frames;
  std::function<void()> onFrame;
};

Bytes bytesOf(const Data& data) { return {data.span().begin(), data.span().end()}; }

VideoSample sampleOf(const Bytes& bytes, bool sync, const Bytes& sps = {}, const Bytes& pps = {}) {
  VideoSample sample;
  sample.data = Data::copyOf(bytes);
  sample.sync = sync;
  sample.sps = sps.empty() ? Data() : Data::copyOf(sps);
  sample.pps = pps.empty() ? Data() : Data::copyOf(pps);
  return sample;
}

class ZelHardwareVideoEncoderTest : public testing::Test {
 protected:
  ZelHardwareVideoEncoderTest() {
    manual_.videoCompression = compression_;
    configuration_->setVideoFrameRate(24);
    configuration_->setVideoMaxKeyFrameInterval(48);
    compression_->sample = &plain_;
  }

  void make() {
    encoder_ = ZelHardwareVideoEncoder::create(configuration_, manual_.platform());
    ASSERT_NE(encoder_, nullptr);
    encoder_->setDelegate(collector_);
  }
  void encode(int pictures = 1) {
    for (int index = 0; index < pictures; ++index) {
      encoder_->encodeVideoData(picture_, stamp_ += 40);
      manual_.runPending();
    }
  }
  /// The submissions (counted from 0) that were forced key frames.
  [[nodiscard]] std::vector<int> forced() const { return where(&VideoFrameProperties::forceKeyFrame); }
  [[nodiscard]] std::vector<int> withSei() const { return where(&VideoFrameProperties::leadingSei); }
  [[nodiscard]] std::vector<int> where(bool VideoFrameProperties::*field) const {
    std::vector<int> found;
    for (std::size_t index = 0; index < compression_->submissions.size(); ++index) {
      if (compression_->submissions[index].properties.*field) {
        found.push_back(static_cast<int>(index));
      }
    }
    return found;
  }

  test::ManualPlatform manual_;
  test::LogCapture log_;
  std::shared_ptr<test::FakeCompression> compression_ = std::make_shared<test::FakeCompression>();
  std::shared_ptr<ZelLiveVideoConfiguration> configuration_ =
      std::make_shared<ZelLiveVideoConfiguration>(1, ZelLiveInputVideo, 1, manual_.device);
  std::shared_ptr<PixelBuffer> picture_ = PixelBuffer::create(PixelFormat::BGRA, 16, 16);
  VideoSample plain_ = sampleOf({0, 0, 0, 2, 0x41, 9}, false);
  std::shared_ptr<Collector> collector_ = std::make_shared<Collector>();
  std::shared_ptr<ZelHardwareVideoEncoder> encoder_;
  std::uint64_t stamp_ = 0;
};

TEST_F(ZelHardwareVideoEncoderTest, AsksForASessionAsConfigured) {
  configuration_->setVideoSize({720.9, 1280.2});
  configuration_->setVideoMaxKeyFrameInterval(60);
  configuration_->setVideoBitRate(800000);
  make();
  ASSERT_EQ(compression_->asked.size(), 1U);
  const VideoCompressionSettings& asked = compression_->asked[0];
  EXPECT_EQ(asked.width, 720);
  EXPECT_EQ(asked.height, 1280);
  EXPECT_EQ(asked.maxKeyFrameInterval, 60U);
  EXPECT_EQ(asked.maxKeyFrameIntervalDuration, 2U);
  EXPECT_EQ(asked.expectedFrameRate, 24U);
  EXPECT_EQ(asked.averageBitRate, 800000);
  EXPECT_DOUBLE_EQ(asked.dataRateLimitBytes, 150000.0);
  EXPECT_EQ(asked.dataRateLimitSeconds, 1);
  EXPECT_EQ(encoder_->videoBitRate(), 800000U);
  EXPECT_EQ(log_.count(LogLevel::Information, "Live: createCompressionSession"), 1U);
  EXPECT_EQ(ZelHardwareVideoEncoder::create(nullptr, manual_.platform()), nullptr);
}

TEST_F(ZelHardwareVideoEncoderTest, AbsurdConfigurationsReachTheServiceUnharmed) {
  configuration_->setVideoFrameRate(0);
  for (const double side : {0.0, -7.0, 1e300, double{INFINITY}, std::nan("")}) {
    configuration_->setVideoSize({side, 48});
    configuration_->setVideoBitRate(std::numeric_limits<std::uint64_t>::max());
    make();
    EXPECT_EQ(compression_->asked.back().width, side == -7.0 ? -7 : 0);
    EXPECT_EQ(compression_->asked.back().maxKeyFrameIntervalDuration, 0U);
    EXPECT_GT(compression_->asked.back().averageBitRate, 0);
  }
}

TEST_F(ZelHardwareVideoEncoderTest, KeyFramesFollowTheCountOfPictures) {
  const struct {
    std::uint64_t interval;
    std::vector<int> expected;
  } cases[] = {
      {48, {0, 48, 96}},
      {0, {0}},
      {std::uint64_t{1} << 32, {0}},  // Its low 32 bits count.
      {0xFFFFFFD0, {0, 48, 96}},      // -48
  };
  for (const auto& test : cases) {
    compression_->submissions.clear();
    configuration_->setVideoMaxKeyFrameInterval(test.interval);
    make();
    encode(100);
    EXPECT_EQ(forced(), test.expected) << test.interval;
    EXPECT_EQ(withSei(), std::vector{0}) << test.interval;
    EXPECT_EQ(compression_->submissions[9].presentationTime, 10);
    EXPECT_EQ(compression_->submissions[9].reference + 90 * 40, stamp_);
  }
}

TEST_F(ZelHardwareVideoEncoderTest, AFilledSlotShiftsTimesAndKeyFrames) {
  make();
  encode(10);
  encoder_->fillVideoFrame();
  encode(60);
  EXPECT_EQ(forced(), (std::vector{0, 47}));
  EXPECT_EQ(compression_->submissions[9].presentationTime, 10);
  EXPECT_EQ(compression_->submissions[10].presentationTime, 12);
}

TEST_F(ZelHardwareVideoEncoderTest, ARequestedKeyFrameComesOnceAndWithSei) {
  make();
  encode(5);
  encoder_->requestKeyFrame();
  encode(50);
  EXPECT_EQ(forced(), (std::vector{0, 5, 48}));
  EXPECT_EQ(withSei(), (std::vector{0, 5}));
}

TEST_F(ZelHardwareVideoEncoderTest, NothingIsEncodedInTheBackground) {
  make();
  encode(3);
  encoder_->willEnterBackground();
  encode(3);
  encoder_->setVideoBitRate(5);
  EXPECT_EQ(compression_->submissions.size(), 3U);
  EXPECT_TRUE(compression_->rates.empty());
  EXPECT_EQ(encoder_->videoBitRate(), configuration_->videoBitRate());
  encoder_->willEnterForeground();
  encode(2);
  EXPECT_EQ(forced(), (std::vector{0, 3}));
  EXPECT_EQ(withSei(), (std::vector{0, 3}));
}

TEST_F(ZelHardwareVideoEncoderTest, RefusesPicturesThatItCannotShare) {
  make();
  std::uint8_t pixel[4] = {};
  encoder_->encodeVideoData(nullptr, 1);
  encoder_->encodeVideoData(PixelBuffer::wrap(PixelFormat::BGRA, 1, 1, {pixel, nullptr, nullptr}, {4, 0, 0}), 2);
  manual_.runPending();
  EXPECT_TRUE(compression_->submissions.empty());
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: pixelbuffer don't contain iosurface"), 1U);
}

TEST_F(ZelHardwareVideoEncoderTest, AnEncodingErrorMakesANewSessionThatBeginsWithAKeyFrame) {
  make();
  encode(10);
  encoder_->setVideoBitRate(700000);
  compression_->encodeStatus = -12902;
  encode();
  EXPECT_EQ(compression_->alive, 0);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: VTCompressionSessionEncodeFrame() error: -12902"), 1U);
  EXPECT_EQ(log_.count("Live: invalidateCompressionSession"), 1U);
  compression_->encodeStatus = 0;
  encode(2);
  EXPECT_EQ(compression_->sessions, 2U);
  EXPECT_EQ(compression_->alive, 1);
  EXPECT_EQ(compression_->submissions.back().session, 2U);
  EXPECT_EQ(compression_->submissions.back().presentationTime, 13) << "the count runs on";
  EXPECT_EQ(forced(), (std::vector{0, 11}));
  EXPECT_EQ(withSei(), (std::vector{0, 11}));
  EXPECT_EQ(encoder_->videoBitRate(), configuration_->videoBitRate());
}

TEST_F(ZelHardwareVideoEncoderTest, EveryPictureTriesAgainForASession) {
  compression_->createStatus = -5;
  make();
  encode(2);
  encoder_->setVideoBitRate(600000);
  encoder_->stopEncoder();
  manual_.runPending();
  EXPECT_EQ(compression_->asked.size(), 3U);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: VTCompressionSessionCreate() error: -5"), 3U);
  compression_->createStatus = 0;
  encode();
  ASSERT_EQ(compression_->submissions.size(), 1U);
  EXPECT_EQ(withSei(), std::vector{0});
  EXPECT_TRUE(compression_->submissions[0].properties.forceKeyFrame);
}

TEST_F(ZelHardwareVideoEncoderTest, BitRateReachesTheSessionWithItsLimit) {
  make();
  encoder_->setVideoBitRate(800000);
  ASSERT_EQ(compression_->rates.size(), 1U);
  EXPECT_EQ(compression_->rates[0].average, 800000);
  EXPECT_DOUBLE_EQ(compression_->rates[0].limitBytes, 150000.0);
  EXPECT_EQ(compression_->rates[0].limitSeconds, 1);
  EXPECT_EQ(encoder_->videoBitRate(), 800000U);
  encoder_->setVideoBitRate(-1);
  EXPECT_EQ(encoder_->videoBitRate(), 0U);
}

TEST_F(ZelHardwareVideoEncoderTest, ASlowEncoderHoldsFewPictures) {
  const struct {
    std::uint64_t frameRate;
    std::size_t waiting;
  } cases[] = {{24, 6}, {0, 4}, {std::numeric_limits<std::uint64_t>::max(), 30}};
  for (const auto& test : cases) {
    compression_->submissions.clear();
    configuration_->setVideoFrameRate(test.frameRate);
    make();
    std::weak_ptr<PixelBuffer> last;
    for (int index = 0; index < 250; ++index) {
      const auto picture = PixelBuffer::create(PixelFormat::BGRA, 2, 2);
      last = picture;
      encoder_->encodeVideoData(picture, 1);
    }
    EXPECT_TRUE(last.expired()) << "a dropped picture is held";
    manual_.runPending();
    EXPECT_EQ(compression_->submissions.size(), test.waiting);
    encode();
    EXPECT_EQ(compression_->submissions.back().presentationTime, static_cast<std::int64_t>(test.waiting) + 1);
  }
  EXPECT_EQ(log_.count(LogLevel::Warning, "Live: the video encoder is too slow"), 3U * 3U);
}

TEST_F(ZelHardwareVideoEncoderTest, EveryNalUnitBecomesAFrame) {
  make();
  const Bytes sps{0x67, 1};
  const Bytes pps{0x68, 2};
  encode();
  const VideoSample key = sampleOf({0, 0, 0, 2, 6, 1, 0, 0, 0, 1, 0x65, 0, 0, 0, 3, 0x65, 7, 8}, true, sps, pps);
  compression_->sample = &key;
  encode();
  const VideoSample other = sampleOf({0, 0, 0, 1, 0x65}, true, {0x67, 9}, {0x68, 9});
  compression_->sample = &other;
  encode();
  ASSERT_EQ(collector_->frames.size(), 5U);
  const auto& frames = collector_->frames;
  EXPECT_FALSE(frames[0]->sps) << "no key frame has been seen";
  EXPECT_FALSE(frames[0]->isKeyFrame);
  const std::vector<Bytes> units{{0x41, 9}, {6, 1}, {0x65}, {0x65, 7, 8}, {0x65}};
  for (std::size_t index = 0; index < units.size(); ++index) {
    EXPECT_EQ(bytesOf(frames[index]->data), units[index]);
    EXPECT_EQ(frames[index]->timestamp, index == 0 ? 40U : index == 4 ? 120U : 80U);
    if (index > 0) {
      EXPECT_TRUE(frames[index]->isKeyFrame);
      EXPECT_EQ(bytesOf(frames[index]->sps), sps) << "captured once";
      EXPECT_EQ(bytesOf(frames[index]->pps), pps);
    }
  }
  EXPECT_EQ(frames[1]->data.bytes(), key.data.bytes() + 4) << "the payload was copied";
}

TEST_F(ZelHardwareVideoEncoderTest, MalformedSamplesEndAtTheirFault) {
  make();
  const struct {
    std::string name;
    Bytes bytes;
    std::size_t frames;
    std::size_t complaints;
  } cases[] = {
      {"nothing", {}, 0, 0},
      {"three bytes", {0, 0, 0}, 0, 0},
      {"a length alone", {0, 0, 0, 9}, 0, 0},
      {"one byte short", {0, 0, 0, 2, 1}, 0, 1},
      {"the longest length", {0xFF, 0xFF, 0xFF, 0xFF, 1, 2}, 0, 1},
      {"a good unit before a bad one", {0, 0, 0, 1, 1, 0, 0, 0, 5, 1}, 1, 1},
      {"a tail too short for a length", {0, 0, 0, 1, 1, 0, 0, 0}, 1, 0},
      {"an empty unit", {0, 0, 0, 0, 0, 0, 0, 1, 1}, 1, 0},
  };
  for (const auto& test : cases) {
    collector_->frames.clear();
    const test::LogCapture log;
    const VideoSample sample = sampleOf(test.bytes, false);
    compression_->sample = &sample;
    encode();
    EXPECT_EQ(collector_->frames.size(), test.frames) << test.name;
    EXPECT_EQ(log.count(LogLevel::Error, "NAL unit"), test.complaints) << test.name;
  }
}

TEST_F(ZelHardwareVideoEncoderTest, CallbackFaultsAreLogged) {
  make();
  const VideoSample noSps = sampleOf({0, 0, 0, 1, 0x65}, true, {}, {0x68});
  const VideoSample noPps = sampleOf({0, 0, 0, 1, 0x65}, true, {0x67}, {});
  VideoSample noData;
  const struct {
    int status;
    const VideoSample* sample;
    std::string message;
    std::size_t frames;
  } cases[] = {
      {0, nullptr, "Live: encoder samplebuffer is nil", 0},
      {-3, nullptr, "Live: encoder samplebuffer is nil", 0},
      {-3, &plain_, "Live: VideoCompresssionOutputCallBack error: -3", 0},
      {0, &noSps, "Live: Video encoder get sps error: ", 1},
      {0, &noPps, "Live: Video encoder get pps error: ", 1},
      {0, &noData, "Live: CMBlockBufferGetDataPointer() error: ", 0},
  };
  for (const auto& test : cases) {
    collector_->frames.clear();
    const test::LogCapture log;
    compression_->output(1, test.status, test.sample);
    EXPECT_EQ(log.count(LogLevel::Error, test.message), 1U) << test.message;
    EXPECT_EQ(log.count(LogLevel::Error, ""), 1U) << test.message;
    ASSERT_EQ(collector_->frames.size(), test.frames) << test.message;
    for (const auto& frame : collector_->frames) {
      EXPECT_FALSE(frame->sps || frame->pps) << "neither set is kept without the other";
    }
  }
}

TEST_F(ZelHardwareVideoEncoderTest, StoppingCompletesThePictures) {
  make();
  encode();
  encoder_->stopEncoder();
  manual_.runPending();
  EXPECT_EQ(compression_->completions, 1);
}

TEST_F(ZelHardwareVideoEncoderTest, MayBeDestroyedAtAnyMoment) {
  make();
  encoder_->encodeVideoData(picture_, 1);
  encoder_.reset();
  manual_.runPending();
  EXPECT_TRUE(compression_->submissions.empty());
  EXPECT_EQ(compression_->alive, 0);
  compression_->output(1, 0, &plain_);  // A late answer.
  EXPECT_TRUE(collector_->frames.empty());
  EXPECT_EQ(log_.count(LogLevel::Information, "<ZelHardwareVideoEncoder: 0x"), 1U);

  make();
  collector_->onFrame = [this] { encoder_.reset(); };
  encoder_->encodeVideoData(picture_, 1);
  manual_.runPending();
  EXPECT_EQ(collector_->frames.size(), 1U);
  EXPECT_EQ(compression_->alive, 0);

  make();
  collector_.reset();
  encode();
  EXPECT_EQ(compression_->submissions.size(), 2U) << "it encodes without a delegate";
}

/// The machine's own queues and encoder, driven from several threads.
TEST(ZelHardwareVideoEncoderThreads, EncodesWhileOthersChangeEverything) {
  struct Waiter : ZelVideoEncodingDelegate {
    void videoEncoderVideoFrame(ZelHardwareVideoEncoder& encoder,
                                std::shared_ptr<const ZelLiveVideoFrame> frame) override {
      encoder.setVideoBitRate(static_cast<std::int64_t>(encoder.videoBitRate()) + 1000);
      const std::lock_guard lock(mutex);
      EXPECT_TRUE(frame->sps);
      last = frame->timestamp;
      changed.notify_all();
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::uint64_t last = 0;
  };
  const auto configuration = std::make_shared<ZelLiveVideoConfiguration>(0, ZelLiveInputVideo, 1);
  configuration->setVideoSize({160, 120});
  const auto waiter = std::make_shared<Waiter>();
  auto encoder =
      ZelHardwareVideoEncoder::create(configuration, defaultPlatform(), {.encoder = "libx264", .preset = ""});
  encoder->setDelegate(waiter);
  std::jthread meddler([encoder](const std::stop_token& stop) {
    for (int index = 0; !stop.stop_requested(); ++index) {
      encoder->setVideoBitRate(300000 + index % 7 * 50000);
      encoder->requestKeyFrame();
      encoder->fillVideoFrame();
      encoder->stopEncoder();
      std::this_thread::yield();
    }
  });
  for (std::uint64_t stamp = 1; stamp <= 40; ++stamp) {
    encoder->encodeVideoData(test::restlessScene(160, 120, static_cast<int>(stamp)), stamp);
    std::unique_lock lock(waiter->mutex);
    ASSERT_TRUE(waiter->changed.wait_for(lock, std::chrono::seconds(20), [&] { return waiter->last == stamp; }));
  }
  encoder->encodeVideoData(test::restlessScene(160, 120, 0), 41);
  encoder.reset();
}

}  // namespace
}  // namespace zellive
