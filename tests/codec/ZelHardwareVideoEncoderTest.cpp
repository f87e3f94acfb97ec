#include "zellive/codec/ZelHardwareVideoEncoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <optional>

#include "tests/codec/FakeCompression.h"
#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

/// Notes each frame: its bytes, "*" for a key frame, the parameter sets, the time stamp.
struct Collector : ZelVideoEncodingDelegate {
  void videoEncoderVideoFrame(ZelHardwareVideoEncoder&, std::shared_ptr<const ZelLiveVideoFrame> frame) override {
    frames += text(frame->data) + (frame->isKeyFrame ? "*" : "") + text(frame->sps) + text(frame->pps) + "@" +
              std::to_string(frame->timestamp) + " ";
    payload = frame->data.bytes();
    onFrame();
  }
  static std::string text(const Data& data) { return {data.span().begin(), data.span().end()}; }
  std::string frames;
  const std::uint8_t* payload = nullptr;
  std::function<void()> onFrame = [] {};
};

/// Bytes as text. Empty parameter sets are absent.
VideoSample sampleOf(std::string_view bytes, bool sync = false, std::string_view sps = "", std::string_view pps = "") {
  const auto dataOf = [](std::string_view text) {
    return Data::copyOf({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
  };
  return {dataOf(bytes), sync, sps.empty() ? Data() : dataOf(sps), pps.empty() ? Data() : dataOf(pps)};
}

class ZelHardwareVideoEncoderTest : public testing::Test {
 protected:
  ZelHardwareVideoEncoderTest() { manual_.videoCompression = fake_; }
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
  std::shared_ptr<test::FakeCompression> fake_ = std::make_shared<test::FakeCompression>();
  std::shared_ptr<ZelLiveVideoConfiguration> configuration_ =
      std::make_shared<ZelLiveVideoConfiguration>(1, ZelLiveInputVideo, 1, manual_.device);
  std::shared_ptr<PixelBuffer> picture_ = PixelBuffer::create(PixelFormat::BGRA, 16, 16);
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
  EXPECT_EQ(std::tuple(asked.width, asked.height, asked.averageBitRate, asked.dataRateLimitBytes,
                       asked.maxKeyFrameInterval, asked.maxKeyFrameIntervalDuration, asked.expectedFrameRate),
            (std::tuple{720, 1280, 600000, 112500.0, 60U, 2U, 24U}));
  encoder_->setVideoBitRate(800000);
  EXPECT_EQ(fake_->rates, (decltype(fake_->rates){{800000, 150000.0, 1}}));
  EXPECT_EQ(encoder_->videoBitRate(), 800000U);
  encoder_->setVideoBitRate(-1);
  EXPECT_EQ(encoder_->videoBitRate(), 0U);
  configuration_->setVideoFrameRate(0);
  configuration_->setVideoBitRate(~0ULL);
  for (const double side : {0.0, 1e300, std::nan("")}) {
    configuration_->setVideoSize({side, 48});
    make();
    EXPECT_TRUE(asked.width == 0 && asked.averageBitRate > 0) << side;
  }
  EXPECT_EQ(ZelHardwareVideoEncoder::create(nullptr, manual_.platform()), nullptr);
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

TEST_F(ZelHardwareVideoEncoderTest, EveryNalUnitBecomesAFrameUpToTheFirstFault) {
  make();
  using namespace std::string_literals;
  const std::tuple<int, std::optional<VideoSample>, std::string, std::string> cases[] = {
      {-3, {}, "Live: encoder samplebuffer is nil", ""},
      {-3, sampleOf("\0\0\0\1A"s), "Live: VideoCompresssionOutputCallBack error: -3", ""},
      {0, VideoSample(), "Live: CMBlockBufferGetDataPointer() error: ", ""},
      {0,
       sampleOf("\xFF\xFF\xFF\xFF"
                "AB"s),
       "NAL unit of 4294967295 bytes where 2 are left", ""},
      {0, sampleOf("\0\0\0\1A\0\0\0\2B"s), "NAL unit of 2 bytes where 1 are left", "A@4 "},
      {0, sampleOf("\0\0\0\0\0\0\0\1A\0\0\0"s), "", "A@5 "},
      // Neither parameter set is kept without the other, and both for good.
      {0, sampleOf("\0\0\0\1e"s, true, "", "pps"), "Live: Video encoder get sps error: ", "e*@6 "},
      {0, sampleOf("\0\0\0\1e"s, true, "sps", ""), "Live: Video encoder get pps error: ", "e*@7 "},
      {0, sampleOf("\0\0\0\2ab\0\0\0\1e\0\0\0\3efg"s, true, "(sps", "pps)"), "",
       "ab*(spspps)@8 e*(spspps)@8 efg*(spspps)@8 "},
      {0, sampleOf("\0\0\0\1e"s, true, "other", "other"), "", "e*(spspps)@9 "},
      {0, sampleOf("\0\0\0\2A9"s), "", "A9(spspps)@10 "},
  };
  std::uint64_t reference = 0;
  for (const auto& [status, sample, message, frames] : cases) {
    collector_->frames.clear();
    const test::LogCapture log;
    fake_->output(reference++, status, sample ? &*sample : nullptr);
    EXPECT_EQ(log.count(LogLevel::Error, message), message.empty() ? 0U : 1U) << message;
    EXPECT_EQ(collector_->frames, frames);
  }
  EXPECT_EQ(collector_->payload, std::get<1>(cases[10])->data.bytes() + 4) << "the payload was copied";
}

TEST_F(ZelHardwareVideoEncoderTest, MayBeDestroyedAtAnyMoment) {
  make();
  encoder_->encodeVideoData(picture_, 1);
  encoder_.reset();
  manual_.runPending();
  const auto late = sampleOf({"\0\0\0\1A", 5});
  fake_->output(1, 0, &late);
  EXPECT_TRUE(fake_->trace.empty() && fake_->alive == 0 && collector_->frames.empty());
  EXPECT_EQ(log_.count(LogLevel::Information, "<ZelHardwareVideoEncoder: 0x"), 1U);

  make();
  collector_->onFrame = [this] { encoder_.reset(); };
  encode();
  EXPECT_TRUE(std::ranges::count(collector_->frames, '@') == 1 && fake_->alive == 0);
}

}  // namespace
}  // namespace zellive
