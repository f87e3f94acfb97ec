#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "zellive/platform/KeyedArchive.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive {
namespace {

using Video = ZelLiveVideoConfiguration;
using Audio = ZelLiveAudioConfiguration;
using Asc = std::array<std::uint8_t, 2>;

std::shared_ptr<test::SettableDevice> upright() { return std::make_shared<test::SettableDevice>(); }

// ---- Audio

TEST(AudioConfiguration, Presets) {
  struct Row {
    std::uint64_t quality, rate, bitRate, channels;
    Asc asc;
    std::uint64_t bufferLength;
  };
  for (const Row& row : {Row{0, 16000, 64000, 2, {0x14, 0x10}, 4096}, Row{1, 44100, 96000, 2, {0x12, 0x10}, 4096},
                         Row{2, 44100, 128000, 2, {0x12, 0x10}, 4096}, Row{3, 48000, 128000, 2, {0x11, 0x90}, 4096},
                         Row{99, 48000, 128000, 1, {0x11, 0x88}, 2048}, Row{4, 48000, 128000, 1, {0x11, 0x88}, 2048}}) {
    const auto audio = Audio::defaultConfigurationForQuality(row.quality);
    EXPECT_EQ(audio->audioSampleRate(), row.rate) << row.quality;
    EXPECT_EQ(audio->audioBitRate(), row.bitRate) << row.quality;
    EXPECT_EQ(audio->numberOfChannels(), row.channels) << row.quality;
    EXPECT_EQ(audio->asc(), row.asc) << row.quality;
    EXPECT_EQ(audio->bufferLength(), row.bufferLength) << row.quality;
  }
}

TEST(AudioConfiguration, AscFollowsRateAndChannels) {
  struct Row {
    std::uint64_t rate, channels;
    Asc asc;
  };
  Audio audio;
  for (const Row& row : {Row{96000, 1, {0x10, 0x08}}, Row{88200, 2, {0x10, 0x90}}, Row{64000, 1, {0x11, 0x08}},
                         Row{32000, 1, {0x12, 0x88}}, Row{24000, 1, {0x13, 0x08}}, Row{22050, 1, {0x13, 0x88}},
                         Row{12000, 1, {0x14, 0x88}}, Row{11025, 1, {0x15, 0x08}}, Row{8000, 1, {0x15, 0x88}},
                         Row{7350, 1, {0x16, 0x08}}, Row{44099, 1, {0x17, 0x88}}, Row{0, 0, {0x17, 0x80}},
                         Row{48000, 15, {0x11, 0xF8}}, Row{48000, 16, {0x11, 0x80}}}) {
    audio.setAudioSampleRate(row.rate);
    audio.setNumberOfChannels(row.channels);
    EXPECT_EQ(audio.asc(), row.asc) << row.rate << " Hz, " << row.channels;
  }
}

TEST(AudioConfiguration, ArchiveHashCopyAndText) {
  const auto audio = Audio::defaultConfigurationForQuality(ZelLiveAudioQualityLow);
  const auto archiver = makeKeyedArchiver();
  audio->encodeWithCoder(*archiver);
  const auto read = Audio::initWithCoder(*makeKeyedUnarchiver(archiver->finish()));
  EXPECT_EQ(read->audioSampleRate(), 16000U);
  EXPECT_EQ(read->audioBitRate(), 64000U);
  EXPECT_EQ(read->numberOfChannels(), 2U);
  EXPECT_EQ(read->asc(), audio->asc());
  EXPECT_EQ(read->hash(), audio->hash());
  EXPECT_FALSE(read->isEqual(*audio));
  EXPECT_TRUE(read->isEqual(*read));
  const auto copy = audio->copy();
  EXPECT_EQ(copy->hash(), Audio::defaultConfiguration()->hash());
  EXPECT_NE(copy->hash(), audio->hash());
  const std::string text = audio->description();
  EXPECT_EQ(text.find("<ZelLiveAudioConfiguration 0x"), 0U);
  EXPECT_TRUE(text.ends_with("> numberOfChannels:2 audioSampleRate:16000 audioBitRate:64000 audioHeader:\x14\x10"));
}

// ---- Video

TEST(VideoConfiguration, Presets) {
  struct Row {
    std::uint64_t quality;
    Size size;
    std::uint64_t frameRate, bitRate, most, least, preset;
    const char* name;
    Size captured;
  };
  for (const Row& row :
       {Row{0, {480, 640}, 24, 921600, 1024000, 819200, 0, "AVCaptureSessionPreset640x480", {480, 640}},
        Row{1, {720, 1280}, 24, 1536000, 1740800, 1228800, 1, "AVCaptureSessionPreset1280x720", {720, 1280}},
        Row{2, {1080, 1920}, 30, 3072000, 3276800, 2560000, 2, "AVCaptureSessionPreset1920x1080", {1080, 1920}},
        Row{3, {1440, 2560}, 30, 3584000, 3788800, 3072000, 3, "AVCaptureSessionPreset1920x1080", {1440, 2560}},
        Row{4, {2160, 3840}, 30, 6144000, 6348800, 5632000, 4, "AVCaptureSessionPreset3840x2160", {2160, 3840}},
        Row{7, {720, 1280}, 24, 1536000, 1740800, 1228800, 1, "AVCaptureSessionPreset1280x720", {720, 1280}}}) {
    Video video(row.quality, ZelLiveCaptureVideo, 1, upright());
    EXPECT_EQ(video.videoSize(), row.size) << row.quality;
    EXPECT_EQ(video.captureOutVideoSize(), row.captured) << row.quality;
    EXPECT_EQ(video.videoFrameRate(), row.frameRate) << row.quality;
    EXPECT_EQ(video.videoMaxKeyFrameInterval(), row.frameRate * 2) << row.quality;
    EXPECT_EQ(video.videoBitRate(), row.bitRate) << row.quality;
    EXPECT_EQ(video.videoMaxBitRate(), row.most) << row.quality;
    EXPECT_EQ(video.videoMinBitRate(), row.least) << row.quality;
    EXPECT_EQ(video.sessionPreset(), row.preset) << row.quality;
    EXPECT_EQ(video.avSessionPreset(), row.name) << row.quality;
    EXPECT_EQ(video.videoMaxFrameRate() + video.videoMinFrameRate(), 0U) << row.quality;
  }
}

TEST(VideoConfiguration, BoundsOnTheWrongSideAreIgnored) {
  Video video(1, ZelLiveCaptureVideo, 1, upright());
  video.setVideoMaxBitRate(1536000);
  EXPECT_EQ(video.videoMaxBitRate(), 1740800U);
  video.setVideoMaxBitRate(1536001);
  EXPECT_EQ(video.videoMaxBitRate(), 1536001U);
  video.setVideoMinBitRate(1600000);
  video.setVideoMinBitRate(1536000);
  EXPECT_EQ(video.videoMinBitRate(), 1228800U);
  video.setVideoMinBitRate(0);
  EXPECT_EQ(video.videoMinBitRate(), 0U);
  video.setVideoMaxFrameRate(24);
  video.setVideoMinFrameRate(24);
  EXPECT_EQ(video.videoMaxFrameRate() + video.videoMinFrameRate(), 0U);
  video.setVideoMaxFrameRate(25);
  video.setVideoMinFrameRate(23);
  EXPECT_EQ(video.videoMaxFrameRate(), 25U);
  EXPECT_EQ(video.videoMinFrameRate(), 23U);
}

TEST(VideoConfiguration, OrientationAndScreen) {
  struct Row {
    std::int64_t type, output, held;
    Size screen, size, captured;
  };
  constexpr std::int64_t kCamera = ZelLiveCaptureVideo;
  constexpr std::int64_t kScreen = ZelLiveReplayVideo;
  constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
  const std::vector<Row> rows = {
      {kCamera, 3, 1, {375, 812}, {1280, 720}, {1280, 720}},
      {kCamera, 4, 1, {375, 812}, {1280, 720}, {1280, 720}},
      {kCamera, 2, 3, {375, 812}, {720, 1280}, {720, 1280}},
      // Pushed pictures keep the preset's size; only the capture size follows the way the device is held.
      {ZelLiveInputVideo, 3, 1, {375, 812}, {720, 1280}, {720, 1280}},
      {ZelLiveInputVideo, 1, 4, {375, 812}, {720, 1280}, {1280, 720}},
      {kScreen, 1, 1, {375, 812}, {720, 1560}, {720, 1280}},
      {kScreen, 1, 3, {812, 375}, {1560, 720}, {1280, 720}},
      {kScreen, 1, 1, {414, 896}, {720, 1560}, {720, 1280}},
      {kScreen, 1, 1, {1024, 1366}, {720, 964}, {720, 1280}},
      {kScreen | kCamera, 3, 1, {375, 812}, {1560, 720}, {1280, 720}},
      {kScreen, 1, 1, {0, 812}, {720, 1280}, {720, 1280}},
      {kScreen, 1, 1, {kNaN, 812}, {720, 1280}, {720, 1280}},
      {kScreen, 1, 1, {-375, 812}, {720, 1280}, {720, 1280}},
  };
  for (const Row& row : rows) {
    const auto device = upright();
    device->orientation = row.held;
    device->screen = row.screen;
    const Video video(1, row.type, row.output, device);
    EXPECT_EQ(video.videoSize(), row.size) << "row " << &row - rows.data();
    EXPECT_EQ(video.captureOutVideoSize(), row.captured) << "row " << &row - rows.data();
  }
}

TEST(VideoConfiguration, AspectRatioSizeFitsTheCaptureShapeAndIsEven) {
  struct Row {
    Size stored, fitted;
  };
  Video video(1, ZelLiveCaptureVideo, 1, upright());
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  for (const Row& row :
       {Row{{720, 1280}, {720, 1280}}, Row{{720, 1000}, {562, 1000}}, Row{{361, 5000}, {360, 642}}, Row{{0, 0}, {0, 0}},
        Row{{-5, 10}, {0, 0}}, Row{{kInfinity, 10}, {0, 0}}, Row{{std::nan(""), 10}, {0, 0}}}) {
    video.setVideoSize(row.stored);
    EXPECT_EQ(video.aspectRatioVideoSize(), row.fitted) << row.stored.width << " x " << row.stored.height;
    video.setVideoSizeRespectingAspectRatio(true);
    EXPECT_EQ(video.videoSize(), row.fitted);
    video.setVideoSizeRespectingAspectRatio(false);
  }
  video.setVideoSize({1e300, 1e300});
  EXPECT_TRUE(std::isfinite(video.aspectRatioVideoSize().width));
}

/// A camera that takes nothing above a given preset, and remembers what it was asked for.
struct PickyDevice : test::SettableDevice {
  std::string accepted;
  mutable std::vector<std::string> asked;
  [[nodiscard]] bool cameraSupportsPreset(std::string_view preset) const override {
    asked.emplace_back(preset);
    return preset == accepted;
  }
};

TEST(VideoConfiguration, ProbesTheCameraDownwardsAndKeepsTheRequest) {
  const auto device = std::make_shared<PickyDevice>();
  device->accepted = "AVCaptureSessionPreset640x480";
  Video video(ZelLiveVideoQualityHigh, ZelLiveCaptureVideo, 1, device);
  EXPECT_EQ(video.sessionPreset(), 2U);
  ASSERT_GE(device->asked.size(), 3U);
  EXPECT_EQ(device->asked[0], "AVCaptureSessionPreset1920x1080");
  EXPECT_EQ(device->asked[1], "AVCaptureSessionPreset1280x720");
  EXPECT_EQ(device->asked[2], "AVCaptureSessionPreset640x480");

  // Where nothing is accepted the probe ends at the lowest preset, and a preset outside the table is asked for once.
  device->accepted = "none";
  video.setSessionPreset(4);
  EXPECT_EQ(video.sessionPreset(), 4U);
  device->asked.clear();
  video.setSessionPreset(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(device->asked.size(), 1U);
  EXPECT_EQ(video.avSessionPreset(), "AVCaptureSessionPreset1280x720");

  // Other sources leave the camera alone.
  device->asked.clear();
  const Video pushed(2, ZelLiveInputVideo, 1, device);
  EXPECT_TRUE(device->asked.empty());
}

TEST(VideoConfiguration, ArchiveHoldsEveryFieldAndReadsBackWithoutThePreset) {
  const auto device = upright();
  Video video(ZelLiveVideoQualityHigh, ZelLiveCaptureVideo, 3, device);
  video.setVideoSize({642, 362});
  video.setVideoFrameRate(25);
  video.setVideoMaxFrameRate(30);
  video.setVideoMinFrameRate(10);
  video.setVideoMaxKeyFrameInterval(77);
  video.setVideoBitRate(2'900'000);
  video.setAutorotate(true);
  video.setVideoSizeRespectingAspectRatio(true);
  const auto archiver = makeKeyedArchiver();
  video.encodeWithCoder(*archiver);
  const std::string archive = archiver->finish();
  std::size_t last = 0;
  for (const char* key :
       {"videoSize", "captureOutVideoSize", "videoFrameRate", "videoMaxFrameRate", "videoMinFrameRate",
        "videoMaxKeyFrameInterval", "videoBitRate", "videoMaxBitRate", "videoMinBitRate", "sessionPreset",
        "outputImageOrientation", "autorotate", "videoSizeRespectingAspectRatio", "captureType"}) {
    const std::size_t at = archive.find("\"" + std::string(key) + "\"");
    ASSERT_NE(at, std::string::npos) << key;
    EXPECT_GE(at, last) << key;
    last = at;
  }
  const auto read = Video::initWithCoder(*makeKeyedUnarchiver(archive), device);
  EXPECT_EQ(read->hash(), video.hash());
  const auto afterAddress = [](const std::string& text) { return text.substr(text.find('>')); };
  EXPECT_EQ(afterAddress(read->description()), afterAddress(video.description()));
  EXPECT_EQ(afterAddress(video.description()),
            "> videoSize:{642, 362} captureOutVideoSize:{1920, 1080} videoSizeRespectingAspectRatio:1 "
            "videoFrameRate:25 videoMaxFrameRate:30 videoMinFrameRate:10 videoMaxKeyframeInterval:77 "
            "videoBitRate:2900000 videoMaxBitRate:3276800 videoMinBitRate:2560000 "
            "avSessionPreset:AVCaptureSessionPreset1920x1080 sessionPreset:2 outputImageOrientation:3 autorotate:1 "
            "captureType:2");
  EXPECT_EQ(video.description().find("<ZelLiveVideoConfiguration: 0x"), 0U);
  EXPECT_FALSE(read->isEqual(video));
}

TEST(VideoConfiguration, DamagedArchivesLeaveFieldsAtZero) {
  const auto read = Video::initWithCoder(
      *makeKeyedUnarchiver(R"({"videoSize": [1, 2], "videoFrameRate": -3, "videoBitRate": "x", "captureType": 1.5,
                               "autorotate": 1, "videoMaxKeyFrameInterval": 9})"),
      upright());
  EXPECT_EQ(read->videoSize(), Size{});
  EXPECT_EQ(read->videoFrameRate() + read->videoBitRate(), 0U);
  EXPECT_EQ(read->captureType(), 0);
  EXPECT_FALSE(read->autorotate());
  EXPECT_EQ(read->videoMaxKeyFrameInterval(), 9U);
  const auto audio = Audio::initWithCoder(*makeKeyedUnarchiver(R"({"asc": "abc", "audioSampleRate": null})"));
  EXPECT_EQ(audio->asc(), (Asc{0, 0}));
  EXPECT_EQ(audio->audioSampleRate(), 0U);
}

TEST(VideoConfiguration, CopyIsTheDefault) {
  const auto device = upright();
  const Video video(4, ZelLiveReplayVideo, 3, device);
  const Video standard(1, ZelLiveCaptureVideo, 1, device);
  EXPECT_EQ(video.copy()->hash(), standard.hash());
  EXPECT_NE(video.hash(), standard.hash());
}

TEST(VideoConfiguration, AbsurdValuesAreKept) {
  Video video(1, ZelLiveCaptureVideo, 77, upright());
  video.setVideoFrameRate(0);
  video.setVideoSize({1e300, std::nan("")});
  video.setVideoBitRate(std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(video.videoSize().width, 1e300);
  EXPECT_NE(video.description().find("videoBitRate:-1 "), std::string::npos);
  EXPECT_NE(video.description().find("nan}"), std::string::npos);
}

}  // namespace
}  // namespace zellive
