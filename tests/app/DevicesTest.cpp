#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "apps/zellive/AppState.h"
#include "apps/zellive/DeviceChoice.h"
#include "apps/zellive/DeviceList.h"
#include "apps/zellive/StreamSettings.h"
#include "tests/support/FakeCameras.h"
#include "tests/support/FakeMicrophones.h"

namespace zellive::tool {
namespace {

TEST(DeviceChoiceTest, TakesANameOrAPartOfItAndSaysWhatThereIs) {
  const std::vector<DeviceName> devices{
      {"zellive.card", "Test card", true}, {"usb-1", "Desk Camera"}, {"usb-2", "Desk"}};
  const std::pair<const char*, int> found[] = {{"", 1}, {"Desk", 2}, {"usb-1", 1}, {"CARD", 0}, {"camera", 1}};
  std::string error;
  for (const auto& [wanted, index] : found) {
    EXPECT_EQ(chooseDevice(devices, wanted, "camera", error), index) << wanted << error;
  }
  EXPECT_FALSE(chooseDevice(devices, "usb", "camera", error));
  EXPECT_EQ(error, R"("usb" fits more than one camera: "Desk Camera" (usb-1), "Desk" (usb-2))");
  EXPECT_FALSE(chooseDevice(devices, "attic", "camera", error));
  EXPECT_NE(error.find(R"(no camera "attic"; there are "Test card" (zellive.card), "Desk Camera")"), std::string::npos)
      << error;
  EXPECT_FALSE(chooseDevice({devices[0]}, "", "camera", error));
  EXPECT_EQ(error,
            "this machine has no camera at present; name a virtual one: --camera zellive.card, or --camera clip:FILE");
}

TEST(DeviceListTest, SaysOfEachDeviceWhatItIsAndCanDo) {
  auto platform = *defaultPlatform();
  const auto cameras = std::make_shared<test::FakeCameras>();
  platform.cameras = cameras;
  platform.audioInputs = std::make_shared<test::FakeMicrophones>();
  std::string remark;
  const auto list = nlohmann::json::parse(deviceList(platform, true, remark));
  ASSERT_EQ(list["cameras"].size(), 2U);
  EXPECT_EQ(list["cameras"][1]["position"], "front");
  EXPECT_EQ(list["cameras"][1]["id"], "front");
  EXPECT_EQ(list["microphones"][0]["sample_rate"], 48000);
  ASSERT_EQ(list["video_encoders"].size(), 3U);
  const auto& x264 = list["video_encoders"][2];
  EXPECT_EQ(x264["name"], "libx264");
  EXPECT_EQ(x264["works"], true);
  EXPECT_EQ(x264["largest"]["width"], 3840);
  EXPECT_EQ(x264["presets"][1], "superfast");
  for (const auto& encoder : list["video_encoders"]) {
    EXPECT_NE(encoder["works"] == true, encoder.contains("reason")) << encoder;
  }
  EXPECT_EQ(list["audio_encoders"][0]["works"], true);
  const auto text = deviceList(platform, false, remark);
  EXPECT_NE(text.find("  front\n      id front; front, virtual, with a torch\n"), std::string::npos) << text;
  EXPECT_NE(text.find("  Fake\n      id fake; 1 channel, 48000 Hz\n"), std::string::npos) << text;
  EXPECT_NE(text.find("libx264: H.264 High, in software, up to 3840x2160\n"), std::string::npos) << text;
}

TEST(StreamSettingsTest, ACameraIsStreamedAtASizeThatItHas) {
  const auto sizeFor = [](std::vector<CaptureDeviceFormat> formats, std::int64_t orientation, std::uint64_t quality) {
    PublishOptions options;
    options.orientation = orientation;
    options.quality = quality;
    const auto video = makeCameraConfiguration(options, ZelLiveCaptureVideo | ZelLiveCaptureAudio, formats);
    const auto [size, capture] = std::pair(video->videoSize(), video->captureOutVideoSize());
    EXPECT_EQ(std::pair(size.width, size.height), std::pair(capture.width, capture.height));
    return std::tuple(static_cast<int>(size.width), static_cast<int>(size.height), video->videoFrameRate());
  };
  const CaptureDeviceFormat vga{"YUY2", 640, 480, 0, 15}, hd{"NV12", 1280, 720, 0, 60}, odd{"NV12", 1024, 768, 0, 0};
  EXPECT_EQ(sizeFor({vga, hd}, 4, 1), std::tuple(1280, 720, 24U));
  EXPECT_EQ(sizeFor({vga, hd}, 1, 2), std::tuple(720, 1280, 30U)) << "no larger than the camera's; upright";
  EXPECT_EQ(sizeFor({vga}, 4, 1), std::tuple(640, 480, 15U));
  EXPECT_EQ(sizeFor({odd}, 4, 1), std::tuple(640, 480, 24U)) << "its shape, at least";
  EXPECT_EQ(sizeFor({}, 4, 2), std::tuple(1920, 1080, 30U));
}

TEST(AppStateTest, TheProgramIsInFrontOnceNothingKeepsItInTheBackground) {
  const auto center = std::make_shared<NotificationCenter>();
  std::string story;
  std::vector<NotificationCenter::Observation> observations;
  for (const auto& [name, letter] : {std::pair{notification::WillResignActive, 'r'},
                                     {notification::DidEnterBackground, 'b'},
                                     {notification::WillEnterForeground, 'f'},
                                     {notification::DidBecomeActive, 'a'}}) {
    observations.push_back(center->addObserver(name, [&story, mark = letter](const UserInfo&) { story += mark; }));
  }
  AppState state(center, [&](bool background) { story += background ? "1 " : "0 "; });
  state.setUnfocused(false);
  state.setSuspended(true);
  state.setUnfocused(true);
  state.setSuspended(false);
  EXPECT_EQ(story, "rb1 ");
  state.setUnfocused(false);
  EXPECT_EQ(story, "rb1 fa0 ");
}

}  // namespace
}  // namespace zellive::tool
