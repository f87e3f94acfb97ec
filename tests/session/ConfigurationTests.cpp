#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "zellive/platform/KeyedArchive.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveDebug.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;
using Video = ZelLiveVideoConfiguration;
using Audio = ZelLiveAudioConfiguration;
using Asc = std::array<std::uint8_t, 2>;

std::string archiveOf(const auto& configuration) {
  const auto archiver = makeKeyedArchiver();
  configuration.encodeWithCoder(*archiver);
  return archiver->finish();
}

/// An AudioSpecificConfig: object type 2 in 5 bits, the rate's index in 4, the channels in 4.
Asc ascOf(std::size_t rateIndex, std::size_t channels) {
  const std::size_t bits = 2 << 11 | rateIndex << 7 | channels << 3;
  return {static_cast<std::uint8_t>(bits >> 8), static_cast<std::uint8_t>(bits)};
}

TEST(AudioConfiguration, AscFollowsRateAndChannels) {
  Audio audio;
  const auto asc = [&](std::uint64_t rate, std::uint64_t channels) {
    audio.setAudioSampleRate(rate);
    audio.setNumberOfChannels(channels);
    return audio.asc();
  };
  std::size_t index = 0;
  for (const int rate : {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350}) {
    EXPECT_EQ(asc(static_cast<std::uint64_t>(rate), 1), ascOf(index++, 1)) << rate;
  }
  EXPECT_EQ(asc(44099, 15), ascOf(15, 15));
  EXPECT_EQ(asc(48000, 16), ascOf(3, 0));
}

TEST(AudioConfiguration, ArchiveAndCopy) {
  const auto audio = Audio::defaultConfigurationForQuality(ZelLiveAudioQualityVeryHigh);
  const std::string archive = archiveOf(*audio);
  EXPECT_EQ(archive, R"({"numberOfChannels":2,"audioSampleRate":48000,"audioBitRate":128000,"asc":"\u0011)"
                     "\u0090\"}");
  const auto read = Audio::initWithCoder(*makeKeyedUnarchiver(archive));
  EXPECT_EQ(archiveOf(*read), archive);
  EXPECT_EQ(read->hash(), audio->hash());
  EXPECT_TRUE(read->isEqual(*read) && !read->isEqual(*audio));
  EXPECT_EQ(archiveOf(*audio->copy()), archiveOf(*Audio::defaultConfiguration()));
  EXPECT_EQ(Audio::initWithCoder(*makeKeyedUnarchiver(R"({"asc": "abc"})"))->asc(), (Asc{0, 0}));
}

TEST(VideoConfiguration, NoCameraChangesAPreset) {
  const auto device = std::make_shared<test::SettableDevice>();
  device->cameraAccepts = false;
  const char* presets[] = {"640x480", "1280x720", "1920x1080", "1920x1080", "3840x2160", "1280x720"};
  for (std::uint64_t quality = 0; quality < std::size(presets); ++quality) {
    Video video(quality, ZelLiveCaptureVideo, 1, device);
    EXPECT_EQ(video.avSessionPreset(), std::string("AVCaptureSessionPreset") + presets[quality]);
    EXPECT_EQ(video.captureOutVideoSize(), video.videoSize()) << quality;
    EXPECT_EQ(video.videoMaxKeyFrameInterval(), video.videoFrameRate() * 2) << quality;
    EXPECT_TRUE(video.videoMinBitRate() < video.videoBitRate() && video.videoBitRate() < video.videoMaxBitRate());
    video.setSessionPreset(~0ULL);
    EXPECT_EQ(video.avSessionPreset(), "AVCaptureSessionPreset1280x720");
  }
}

TEST(VideoConfiguration, BoundsOnTheWrongSideAreIgnored) {
  Video video(1, ZelLiveCaptureVideo, 1, std::make_shared<test::SettableDevice>());
  for (const auto& [step, expected] :
       {std::pair{0U, std::array{1740800U, 1228800U, 0U, 0U}}, {1U, std::array{1536001U, 1535999U, 25U, 23U}}}) {
    video.setVideoMaxBitRate(1536000 + step);
    video.setVideoMinBitRate(1536000 - step);
    video.setVideoMaxFrameRate(24 + step);
    video.setVideoMinFrameRate(24 - step);
    EXPECT_EQ(std::tuple(video.videoMaxBitRate(), video.videoMinBitRate(), video.videoMaxFrameRate(),
                         video.videoMinFrameRate()),
              std::tuple_cat(expected));
  }
}

TEST(VideoConfiguration, OrientationAndScreen) {
  constexpr std::int64_t kCamera = ZelLiveCaptureVideo;
  constexpr std::int64_t kScreen = ZelLiveReplayVideo;
  const struct {
    std::int64_t type, output, held;
    Size screen, size, captured;
  } cases[] = {
      {kCamera, 3, 1, {375, 812}, {1280, 720}, {1280, 720}},
      {kCamera, 2, 3, {375, 812}, {720, 1280}, {720, 1280}},
      // Pushed pictures keep the preset's size; only the capture size follows the way the device is held.
      {ZelLiveInputVideo, 3, 4, {375, 812}, {720, 1280}, {1280, 720}},
      {kScreen, 1, 1, {375, 812}, {720, 1560}, {720, 1280}},
      {kScreen, 1, 3, {812, 375}, {1560, 720}, {1280, 720}},
      {kScreen, 1, 1, {1024, 1366}, {720, 964}, {720, 1280}},
      {kScreen | kCamera, 3, 1, {375, 812}, {1560, 720}, {1280, 720}},
      {kScreen, 1, 1, {NAN, 812}, {720, 1280}, {720, 1280}},
  };
  for (const auto& test : cases) {
    const auto device = std::make_shared<test::SettableDevice>();
    device->orientation = test.held;
    device->screen = test.screen;
    const Video video(1, test.type, test.output, device);
    EXPECT_EQ(video.videoSize(), test.size) << "case " << &test - cases;
    EXPECT_EQ(video.captureOutVideoSize(), test.captured) << "case " << &test - cases;
  }
}

TEST(VideoConfiguration, AspectRatioSizeFitsTheCaptureShapeAndIsEven) {
  Video video(1, ZelLiveCaptureVideo, 1, std::make_shared<test::SettableDevice>());
  for (const auto& [stored, fitted] : {std::pair<Size, Size>{{720, 1280}, {720, 1280}},
                                       {{720, 1000}, {562, 1000}},
                                       {{361, 5000}, {360, 642}},
                                       {{-5, 10}, {0, 0}},
                                       {{10, INFINITY}, {0, 0}}}) {
    video.setVideoSizeRespectingAspectRatio(false);
    video.setVideoSize(stored);
    EXPECT_EQ(video.videoSize(), stored);
    video.setVideoSizeRespectingAspectRatio(true);
    EXPECT_EQ(video.videoSize(), fitted) << stored.width << " x " << stored.height;
  }
}

TEST(VideoConfiguration, ArchiveTextAndCopy) {
  const auto device = std::make_shared<test::SettableDevice>();
  Video video(ZelLiveVideoQualityHigh, ZelLiveCaptureVideo, 3, device);
  video.setVideoSize({642, 362});
  video.setVideoFrameRate(25);
  video.setVideoMaxFrameRate(30);
  video.setVideoMinFrameRate(10);
  video.setVideoMaxKeyFrameInterval(77);
  video.setAutorotate(true);
  video.setVideoSizeRespectingAspectRatio(true);
  const std::string archive = archiveOf(video);
  EXPECT_EQ(archive, R"({"videoSize":{"width":642.0,"height":362.0},)"
                     R"("captureOutVideoSize":{"width":1920.0,"height":1080.0},"videoFrameRate":25,)"
                     R"("videoMaxFrameRate":30,"videoMinFrameRate":10,"videoMaxKeyFrameInterval":77,)"
                     R"("videoBitRate":3072000,"videoMaxBitRate":3276800,"videoMinBitRate":2560000,"sessionPreset":2,)"
                     R"("outputImageOrientation":3,"autorotate":true,"videoSizeRespectingAspectRatio":true,)"
                     R"("captureType":2})");
  const auto read = Video::initWithCoder(*makeKeyedUnarchiver(archive), device);
  EXPECT_EQ(archiveOf(*read), archive);
  EXPECT_EQ(read->hash(), video.hash());
  EXPECT_FALSE(read->isEqual(video));
  EXPECT_EQ(archiveOf(*video.copy()), archiveOf(Video(1, ZelLiveCaptureVideo, 1, device)));
  EXPECT_TRUE(video.description().ends_with("outputImageOrientation:3 autorotate:1 captureType:2"));
}

TEST(LiveDebug, Description) {
  ZelLiveDebug debug;
  debug.dropFrame = 3;
  debug.unSendCount = 4;
  debug.totalFrame = 30;
  debug.captureAudioTotalCount = 20;
  debug.captureVideoTotalCount = 10;
  debug.dataFlow = 3'000'000;
  debug.audioDataFlow = 500'000;
  debug.videoDataFlow = 2'500'000;
  debug.startDate = Date(1h);
  const std::string counts =
      "dropFrame:3 unsendFrame:4 senfFrame:30(a:20, v:10) totalBandWidth:3.00MB(a:0.50MB, v:2.50MB) ";
  EXPECT_EQ(debug.description(), counts + "liveTime:0.000000");
  debug.stopDate = Date(1h + 12s + 345678us);
  EXPECT_EQ(debug.description(), counts + "liveTime:12.345678");
}

}  // namespace
}  // namespace zellive
