#include "zellive/codec/ZelHardwareVideoEncoder.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>
#include <thread>

#include "tests/codec/TestMedia.h"
#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

using test::Bytes;
using test::bytesOf;

/// Compression sessions that write down what is asked of them and answer as a test says.
struct FakeCompression : VideoCompressionService {
  struct Session : VideoCompressionSession {
    explicit Session(FakeCompression& owner) : fake(owner) { ++fake.alive; }
    ~Session() override { --fake.alive; }
    int encodeFrame(const std::shared_ptr<PixelBuffer>&, std::int64_t presentationTime, VideoFrameProperties properties,
                    std::uint64_t reference) override {
      fake.trace += !properties.forceKeyFrame ? 'p' : properties.leadingSei ? 'S' : 'K';
      fake.lastTime = presentationTime;
      if (fake.encodeStatus == 0) {
        fake.output(reference, 0, fake.sample);
      }
      return fake.encodeStatus;
    }
    void completeFrames() override { ++fake.completions; }
    void setBitRate(std::int64_t average, double limitBytes, std::int64_t limitSeconds) override {
      fake.rates.emplace_back(average, limitBytes, limitSeconds);
    }
    std::string encoderName() const override { return "fake"; }
    FakeCompression& fake;
  };

  std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings& settings,
                                                  VideoCompressionSession::OutputHandler handler,
                                                  int& status) override {
    asked = settings;
    output = std::move(handler);
    status = createStatus;
    return status == 0 ? std::make_unique<Session>(*this) : nullptr;
  }
  std::vector<VideoEncoderDescription> available() override { return {}; }

  int createStatus = 0;
  int encodeStatus = 0;
  const VideoSample* sample = nullptr;
  VideoCompressionSettings asked;
  VideoCompressionSession::OutputHandler output;
  std::string trace;  ///< A letter for each submission: plain, key, key led by an SEI.
  std::int64_t lastTime = 0;
  std::vector<std::tuple<std::int64_t, double, std::int64_t>> rates;
  int completions = 0;
  int alive = 0;
};

struct Collector : ZelVideoEncodingDelegate {
  void videoEncoderVideoFrame(ZelHardwareVideoEncoder&, std::shared_ptr<const ZelLiveVideoFrame> frame) override {
    frames.push_back(std::move(frame));
    onFrame();
  }
  std::vector<std::shared_ptr<const ZelLiveVideoFrame>> frames;
  std::function<void()> onFrame = [] {};
};

VideoSample sampleOf(const Bytes& bytes, bool sync = false, const Bytes& sps = {}, const Bytes& pps = {}) {
  const auto dataOf = [](const Bytes& set) { return set.empty() ? Data() : Data::copyOf(set); };
  return {Data::copyOf(bytes), sync, dataOf(sps), dataOf(pps)};
}

class ZelHardwareVideoEncoderTest : public testing::Test {
 protected:
  ZelHardwareVideoEncoderTest() {
    manual_.videoCompression = fake_;
    configuration_->setVideoFrameRate(24);
    configuration_->setVideoMaxKeyFrameInterval(48);
    fake_->sample = &plain_;
  }
  void make() {
    encoder_ = ZelHardwareVideoEncoder::create(configuration_, manual_.platform());
    encoder_->setDelegate(collector_);
    fake_->trace.clear();
  }
  void encode() {
    encoder_->encodeVideoData(picture_, stamp_ += 40);
    manual_.runPending();
  }

  test::ManualPlatform manual_;
  test::LogCapture log_;
  std::shared_ptr<FakeCompression> fake_ = std::make_shared<FakeCompression>();
  std::shared_ptr<ZelLiveVideoConfiguration> configuration_ =
      std::make_shared<ZelLiveVideoConfiguration>(1, ZelLiveInputVideo, 1, manual_.device);
  std::shared_ptr<PixelBuffer> picture_ = PixelBuffer::create(PixelFormat::BGRA, 16, 16);
  VideoSample plain_ = sampleOf({0, 0, 0, 2, 0x41, 9});
  std::shared_ptr<Collector> collector_ = std::make_shared<Collector>();
  std::shared_ptr<ZelHardwareVideoEncoder> encoder_;
  std::uint64_t stamp_ = 0;
};

TEST_F(ZelHardwareVideoEncoderTest, AsksForASessionAsConfiguredAndForRatesWithTheirLimit) {
  configuration_->setVideoSize({720.9, 1280.2});
  configuration_->setVideoMaxKeyFrameInterval(60);
  configuration_->setVideoBitRate(600000);
  make();
  const auto& asked = fake_->asked;
  EXPECT_EQ(std::tuple(asked.width, asked.height, asked.averageBitRate, asked.dataRateLimitBytes),
            (std::tuple{720, 1280, 600000, 112500.0}));
  EXPECT_EQ(std::tuple(asked.maxKeyFrameInterval, asked.maxKeyFrameIntervalDuration, asked.expectedFrameRate),
            (std::tuple{60U, 2U, 24U}));
  EXPECT_EQ(encoder_->videoBitRate(), 600000U);
  encoder_->setVideoBitRate(800000);
  EXPECT_EQ(fake_->rates, (decltype(fake_->rates){{800000, 150000.0, 1}}));
  EXPECT_EQ(encoder_->videoBitRate(), 800000U);
  encoder_->setVideoBitRate(-1);
  EXPECT_EQ(encoder_->videoBitRate(), 0U);

  configuration_->setVideoFrameRate(0);
  configuration_->setVideoBitRate(~0ULL);
  for (const double side : {0.0, -7.0, 1e300, double{INFINITY}, std::nan("")}) {
    configuration_->setVideoSize({side, 48});
    make();
    EXPECT_EQ(asked.width, side == -7.0 ? -7 : 0);
    EXPECT_GT(asked.averageBitRate, 0);
  }
  EXPECT_EQ(ZelHardwareVideoEncoder::create(nullptr, manual_.platform()), nullptr);
}

TEST_F(ZelHardwareVideoEncoderTest, KeyFramesFollowTheCountAndWhatHappens) {
  // The script: a picture, one that fails, a filled slot, a request, back- and foreground are p, x, f, r, b and g.
  const std::tuple<std::uint64_t, std::string, std::string> cases[] = {
      {4, "pppppppppp", "SpppKpppKp"},
      {0, "pppppppppp", "Sppppppppp"},
      {1ULL << 32, "pppppppppp", "Sppppppppp"},  // Its low 32 bits count.
      {0xFFFFFFFC, "pppppppppp", "SpppKpppKp"},  // -4
      {4, "ppfppp", "SppKp"},                    // Times and key frames shift.
      {4, "pprppp", "SpSpK"},
      {9, "pppbpppgpp", "SppSp"},
      {9, "ppxpp", "SppSp"},
  };
  const std::map<char, std::function<void()>> steps{
      {'p', [this] { encode(); }},
      {'x', [this] { encode(); }},
      {'f', [this] { encoder_->fillVideoFrame(); }},
      {'r', [this] { encoder_->requestKeyFrame(); }},
      {'b', [this] { encoder_->willEnterBackground(); }},
      {'g', [this] { encoder_->willEnterForeground(); }},
  };
  for (const auto& [interval, script, trace] : cases) {
    configuration_->setVideoMaxKeyFrameInterval(interval);
    make();
    for (const char step : script) {
      fake_->encodeStatus = step == 'x' ? -12902 : 0;
      steps.at(step)();
    }
    EXPECT_EQ(fake_->trace, trace) << script;
    EXPECT_EQ(fake_->lastTime, std::ssize(trace) + std::ranges::count(script, 'f')) << script;
  }
}

TEST_F(ZelHardwareVideoEncoderTest, IgnoresWhatItCannotEncode) {
  make();
  std::uint8_t pixel[4] = {};
  encoder_->encodeVideoData(nullptr, 1);
  encoder_->encodeVideoData(PixelBuffer::wrap(PixelFormat::BGRA, 1, 1, {pixel, nullptr, nullptr}, {4, 0, 0}), 2);
  encoder_->willEnterBackground();
  encoder_->setVideoBitRate(5);
  encode();
  EXPECT_TRUE(fake_->trace.empty() && fake_->rates.empty());
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: pixelbuffer don't contain iosurface"), 1U);
  EXPECT_EQ(encoder_->videoBitRate(), configuration_->videoBitRate());
}

TEST_F(ZelHardwareVideoEncoderTest, AnErrorEndsTheSessionAndEveryPictureTriesForANewOne) {
  make();
  encoder_->setVideoBitRate(700000);
  fake_->encodeStatus = -12902;
  fake_->createStatus = -5;
  encode();
  encode();
  EXPECT_EQ(fake_->alive, 0);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: VTCompressionSessionEncodeFrame() error: -12902"), 1U);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: VTCompressionSessionCreate() error: -5"), 1U);
  fake_->encodeStatus = fake_->createStatus = 0;
  encode();
  EXPECT_TRUE(fake_->alive == 1 && fake_->completions == 0);
  EXPECT_EQ(fake_->trace, "SS");
  EXPECT_EQ(encoder_->videoBitRate(), configuration_->videoBitRate());
  encoder_->stopEncoder();
  manual_.runPending();
  EXPECT_EQ(fake_->completions, 1);
}

TEST_F(ZelHardwareVideoEncoderTest, ASlowEncoderHoldsFewPictures) {
  for (const auto& [frameRate, waiting] : {std::pair{24ULL, 6U}, {0ULL, 4U}, {~0ULL, 30U}}) {
    configuration_->setVideoFrameRate(frameRate);
    make();
    std::weak_ptr<PixelBuffer> last;
    for (int index = 0; index < 250; ++index) {
      const auto picture = PixelBuffer::create(PixelFormat::BGRA, 2, 2);
      last = picture;
      encoder_->encodeVideoData(picture, 1);
    }
    EXPECT_TRUE(last.expired()) << "a dropped picture is held";
    manual_.runPending();
    EXPECT_EQ(fake_->trace.size(), waiting);
    encode();
    EXPECT_EQ(fake_->lastTime, waiting + 1);
  }
  EXPECT_EQ(log_.count(LogLevel::Warning, "Live: the video encoder is too slow"), 3U * 3U);
}

TEST_F(ZelHardwareVideoEncoderTest, EveryNalUnitBecomesAFrame) {
  make();
  const Bytes sps{0x67, 1};
  const VideoSample key = sampleOf({0, 0, 0, 2, 6, 1, 0, 0, 0, 1, 0x65, 0, 0, 0, 3, 0x65, 7, 8}, true, sps, {0x68, 2});
  const VideoSample other = sampleOf({0, 0, 0, 1, 0x65}, true, {0x67, 9}, {0x68, 9});
  for (const auto* sample : {static_cast<const VideoSample*>(&plain_), &key, &other}) {
    fake_->sample = sample;
    encode();
  }
  const auto& frames = collector_->frames;
  ASSERT_EQ(frames.size(), 5U);
  EXPECT_FALSE(frames[0]->sps) << "no key frame has been seen";
  const std::vector<Bytes> units{{0x41, 9}, {6, 1}, {0x65}, {0x65, 7, 8}, {0x65}};
  for (std::size_t index = 0; index < units.size(); ++index) {
    EXPECT_EQ(bytesOf(frames[index]->data), units[index]);
    EXPECT_EQ(frames[index]->timestamp, index == 0 ? 40U : index == 4 ? 120U : 80U);
    EXPECT_EQ(frames[index]->isKeyFrame, index > 0);
    EXPECT_EQ(bytesOf(frames[index]->sps), index > 0 ? sps : Bytes()) << "captured once";
    EXPECT_EQ(bytesOf(frames[index]->pps), index > 0 ? (Bytes{0x68, 2}) : Bytes());
  }
  EXPECT_EQ(frames[1]->data.bytes(), key.data.bytes() + 4) << "the payload was copied";
}

TEST_F(ZelHardwareVideoEncoderTest, FaultySamplesAreLoggedAndEndAtTheirFault) {
  make();
  const std::tuple<int, std::optional<VideoSample>, std::string, std::size_t> cases[] = {
      {-3, {}, "Live: encoder samplebuffer is nil", 0},
      {-3, plain_, "Live: VideoCompresssionOutputCallBack error: -3", 0},
      {0, sampleOf({0, 0, 0, 1, 0x65}, true, {}, {0x68}), "Live: Video encoder get sps error: ", 1},
      {0, sampleOf({0, 0, 0, 1, 0x65}, true, {0x67}, {}), "Live: Video encoder get pps error: ", 1},
      {0, VideoSample(), "Live: CMBlockBufferGetDataPointer() error: ", 0},
      {0, sampleOf({0, 0, 0}), "", 0},
      {0, sampleOf({0, 0, 0, 2, 1}), "NAL unit of 2 bytes where 1 are left", 0},
      {0, sampleOf({0xFF, 0xFF, 0xFF, 0xFF, 1, 2}), "NAL unit of 4294967295 bytes", 0},
      {0, sampleOf({0, 0, 0, 1, 1, 0, 0, 0, 5, 1}), "NAL unit", 1},
      {0, sampleOf({0, 0, 0, 0, 0, 0, 0, 1, 1, 0, 0, 0}), "", 1},
  };
  for (const auto& [status, sample, message, frames] : cases) {
    collector_->frames.clear();
    const test::LogCapture log;
    fake_->output(1, status, sample ? &*sample : nullptr);
    EXPECT_EQ(log.count(LogLevel::Error, message), message.empty() ? 0U : 1U) << message;
    EXPECT_EQ(collector_->frames.size(), frames) << message;
    for (const auto& frame : collector_->frames) {
      EXPECT_FALSE(frame->sps || frame->pps) << "neither set is kept without the other";
    }
  }
}

TEST_F(ZelHardwareVideoEncoderTest, MayBeDestroyedAtAnyMoment) {
  make();
  encoder_->encodeVideoData(picture_, 1);
  encoder_.reset();
  manual_.runPending();
  EXPECT_TRUE(fake_->trace.empty() && fake_->alive == 0);
  fake_->output(1, 0, &plain_);  // A late answer.
  EXPECT_TRUE(collector_->frames.empty());
  EXPECT_EQ(log_.count(LogLevel::Information, "<ZelHardwareVideoEncoder: 0x"), 1U);

  make();
  collector_->onFrame = [this] { encoder_.reset(); };
  encode();
  EXPECT_TRUE(collector_->frames.size() == 1 && fake_->alive == 0);

  make();
  collector_.reset();
  encode();
  EXPECT_EQ(fake_->trace, "S") << "it encodes without a delegate";
}

/// The machine's own queues and encoder, driven from several threads.
TEST(ZelHardwareVideoEncoderThreads, EncodesWhileOthersChangeEverything) {
  struct Waiter : ZelVideoEncodingDelegate {
    void videoEncoderVideoFrame(ZelHardwareVideoEncoder& encoder,
                                std::shared_ptr<const ZelLiveVideoFrame> frame) override {
      encoder.setVideoBitRate(static_cast<std::int64_t>(encoder.videoBitRate()) + 1000);
      EXPECT_TRUE(frame->sps);
      came.at(frame->timestamp).set();
    }
    std::array<test::Event, 42> came;
  };
  const auto configuration = std::make_shared<ZelLiveVideoConfiguration>(0, ZelLiveInputVideo, 1);
  configuration->setVideoSize({160, 120});
  const auto waiter = std::make_shared<Waiter>();
  auto encoder =
      ZelHardwareVideoEncoder::create(configuration, defaultPlatform(), {.encoder = "libx264", .preset = ""});
  encoder->setDelegate(waiter);
  const auto meddle = [encoder, index = 0]() mutable {
    encoder->setVideoBitRate(300000 + ++index % 7 * 50000);
    encoder->requestKeyFrame();
    encoder->fillVideoFrame();
    encoder->stopEncoder();
    std::this_thread::yield();
  };
  test::whileMeddling(meddle, [&] {
    for (std::uint64_t stamp = 1; stamp <= 40; ++stamp) {
      encoder->encodeVideoData(test::restlessScene(160, 120, static_cast<int>(stamp)), stamp);
      ASSERT_TRUE(waiter->came.at(stamp).wait());
    }
    encoder->encodeVideoData(test::restlessScene(160, 120, 0), 41);
    encoder.reset();
  });
}

}  // namespace
}  // namespace zellive
