#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "tests/support/ManualPlatform.h"
#include "zellive/platform/KeyedArchive.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive {
namespace {

using Video = ZelLiveVideoConfiguration;
using Audio = ZelLiveAudioConfiguration;
using Asc = std::array<std::uint8_t, 2>;

std::string archiveOf(const auto& configuration) {
  const auto archiver = makeKeyedArchiver();
  configuration.encodeWithCoder(*archiver);
  return archiver->finish();
}

TEST(Configuration, AscFollowsRateAndChannels) {
  Audio audio;
  for (const auto& [rate, channels, asc] : {std::tuple{96000U, 1U, Asc{0x10, 0x08}},
                                            {48000U, 2U, {0x11, 0x90}},
                                            {7350U, 1U, {0x16, 0x08}},
                                            {44099U, 15U, {0x17, 0xF8}},
                                            {48000U, 16U, {0x11, 0x80}}}) {
    audio.setAudioSampleRate(rate);
    audio.setNumberOfChannels(channels);
    EXPECT_EQ(audio.asc(), asc) << rate << ", " << channels;
  }
}

TEST(Configuration, SizesFollowOrientationScreenAndShape) {
  constexpr std::int64_t kCamera = ZelLiveCaptureVideo;
  constexpr std::int64_t kScreen = ZelLiveReplayVideo;
  const auto device = std::make_shared<test::SettableDevice>();
  // Type, orientation asked for, that of the device, its screen; the stream's size, the captured one.
  const std::tuple<std::int64_t, std::int64_t, std::int64_t, Size, Size, Size> cases[] = {
      {kCamera, 3, 1, {375, 812}, {1280, 720}, {1280, 720}},
      {kCamera, 2, 3, {375, 812}, {720, 1280}, {720, 1280}},
      // Pushed pictures keep the preset's size; only the capture size follows the way the device is held.
      {ZelLiveInputVideo, 3, 4, {375, 812}, {720, 1280}, {1280, 720}},
      {kScreen, 1, 1, {375, 812}, {720, 1560}, {720, 1280}},
      {kScreen, 1, 3, {812, 375}, {1560, 720}, {1280, 720}},
      {kScreen | kCamera, 3, 1, {375, 812}, {1560, 720}, {1280, 720}},
      {kScreen, 1, 1, {NAN, 812}, {720, 1280}, {720, 1280}},
  };
  for (const auto& [type, output, held, screen, size, captured] : cases) {
    device->orientation = held;
    device->screen = screen;
    const Video video(1, type, output, device);
    EXPECT_TRUE(video.videoSize() == size && video.captureOutVideoSize() == captured)
        << type << ", " << output << ", " << held;
  }
  Video video(1, kCamera, 1, std::make_shared<test::SettableDevice>());
  for (const auto& [stored, fitted] : {std::pair<Size, Size>{{720, 1280}, {720, 1280}},
                                       {{720, 1000}, {562, 1000}},
                                       {{361, 5000}, {360, 642}},
                                       {{-5, 10}, {0, 0}},
                                       {{10, INFINITY}, {0, 0}}}) {
    video.setVideoSize(stored);
    video.setVideoSizeRespectingAspectRatio(true);
    EXPECT_EQ(video.videoSize(), fitted) << stored.width << " x " << stored.height;
  }
}

TEST(Configuration, ArchivesHoldAllAndCopiesNothing) {
  const auto audio = Audio::defaultConfigurationForQuality(ZelLiveAudioQualityVeryHigh);
  const std::string sound = archiveOf(*audio);
  EXPECT_EQ(sound, R"({"numberOfChannels":2,"audioSampleRate":48000,"audioBitRate":128000,"asc":"\u0011)"
                   "\u0090\"}");
  EXPECT_EQ(archiveOf(*Audio::initWithCoder(*makeKeyedUnarchiver(sound))), sound);
  EXPECT_EQ(archiveOf(*audio->copy()), archiveOf(*Audio::defaultConfiguration()));
  EXPECT_EQ(Audio::initWithCoder(*makeKeyedUnarchiver(R"({"asc": "abc"})"))->asc(), (Asc{0, 0}));

  const auto device = std::make_shared<test::SettableDevice>();
  Video video(ZelLiveVideoQualityHigh, ZelLiveCaptureVideo, 3, device);
  video.setVideoSize({642, 362});
  video.setVideoFrameRate(25);
  video.setVideoMaxFrameRate(30);
  video.setVideoMinFrameRate(10);
  video.setVideoMaxKeyFrameInterval(77);
  video.setAutorotate(true);
  video.setVideoSizeRespectingAspectRatio(true);
  const std::string pictures = archiveOf(video);
  EXPECT_EQ(pictures, R"({"videoSize":{"width":642.0,"height":362.0},)"
                      R"("captureOutVideoSize":{"width":1920.0,"height":1080.0},"videoFrameRate":25,)"
                      R"("videoMaxFrameRate":30,"videoMinFrameRate":10,"videoMaxKeyFrameInterval":77,)"
                      R"("videoBitRate":3072000,"videoMaxBitRate":3276800,"videoMinBitRate":2560000,"sessionPreset":2,)"
                      R"("outputImageOrientation":3,"autorotate":true,"videoSizeRespectingAspectRatio":true,)"
                      R"("captureType":2})");
  EXPECT_EQ(archiveOf(*Video::initWithCoder(*makeKeyedUnarchiver(pictures), device)), pictures);
  EXPECT_EQ(archiveOf(*video.copy()), archiveOf(Video(1, ZelLiveCaptureVideo, 1, device)));
}

}  // namespace
}  // namespace zellive
