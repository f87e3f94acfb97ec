#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <functional>
#include <utility>
#include <vector>

#include "tests/gpu/Golden.h"
#include "tests/support/Event.h"
#include "tests/support/FakeCameras.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/capture/ZelLiveVideoCapture.h"
#include "zellive/gpu/GPUImageContext.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive::test {
namespace {

/// Keeps the newest picture of the stream.
struct Receiver : ZelLiveVideoCaptureDelegate {
  void videoCaptureOutputPixelBuffer(ZelLiveVideoCapture*, std::shared_ptr<PixelBuffer> pixelBuffer) override {
    picture = std::move(pixelBuffer);
    ++pictures;
    then();
  }
  std::shared_ptr<PixelBuffer> picture;
  int pictures = 0;
  std::function<void()> then = [] {};
};

class VideoCapture : public testing::Test {
 protected:
  VideoCapture() { manual.cameras = cameras; }

  void make() {
    capture = ZelLiveVideoCapture::create(configuration, manual.platform());
    capture->setDelegate(receiver);
  }
  /// What the stream gets of the camera's picture.
  std::shared_ptr<PixelBuffer> streamed() {
    receiver->picture.reset();
    cameras->session->deliver(picture);
    runSynchronouslyOnVideoProcessingQueue([] {});
    return receiver->picture;
  }
  /// What one picture shows of another, `change` made to its colours.
  static testing::AssertionResult shows(
      const std::shared_ptr<PixelBuffer>& what, const PixelBuffer& of,
      const std::function<Color(Color)>& change = [](Color color) { return color; }) {
    return matches(what, of.width(), of.height(), 2,
                   [&](std::size_t x, std::size_t y) { return change(colorAt(of, x, y)); });
  }
  static std::string turnOf(const GPUImageVideoCamera& camera) {
    return std::to_string(camera.outputImageOrientation()) +
           (camera.horizontallyMirrorFrontFacingCamera() ? " front" : "") +
           (camera.horizontallyMirrorRearFacingCamera() ? " rear" : "");
  }

  ManualPlatform manual;
  const std::shared_ptr<FakeCameras> cameras = std::make_shared<FakeCameras>();
  const std::shared_ptr<Receiver> receiver = std::make_shared<Receiver>();
  const std::shared_ptr<PixelBuffer> picture = samplePicture(PixelFormat::BiPlanarFullRange, 640, 480);
  const std::shared_ptr<ZelLiveVideoConfiguration> configuration =
      std::make_shared<ZelLiveVideoConfiguration>(ZelLiveVideoQualityLow, ZelLiveCaptureVideo, 1, manual.device);
  std::shared_ptr<ZelLiveVideoCapture> capture;
};

TEST_F(VideoCapture, TheWatermarkIsInThePreviewOnly) {
  make();
  const auto window = std::make_shared<View>(Rect{10, 10, 480, 640});
  const auto host = std::make_shared<View>();
  const auto mark = std::make_shared<View>();
  window->addSubview(std::make_shared<View>());
  host->addSubview(mark);
  capture->setPreView(window);
  EXPECT_EQ(window->subviews().front(), capture->gpuImageView()) << "behind the others";
  EXPECT_EQ(capture->gpuImageView()->frame(), (Rect{0, 0, 480, 640}));
  EXPECT_EQ(capture->gpuImageView()->fillMode(), GPUImageFillMode::PreserveAspectRatioAndFill);
  capture->setRunning(true);
  const auto plain = streamed();
  ASSERT_TRUE(plain);
  // Upright, and mirrored as in a mirror: each row of the camera is a column, and its first one the first.
  const Size size{480, 640};
  EXPECT_TRUE(matches(plain, 480, 640, 4, [&](std::size_t x, std::size_t y) {
    const auto at = kTurns[kGPUImageTurnRightFlipVertical].source(x, y, size);
    const double luma = sampleLinear(picture->plane(0), 1, at.x, at.y)[0];
    const auto pair = sampleLinear(picture->plane(1), 2, at.x, at.y);
    return Color{luma + 1.772 * (pair[0] - 127.5), luma - 0.344136 * (pair[0] - 127.5) - 0.714136 * (pair[1] - 127.5),
                 luma + 1.402 * (pair[1] - 127.5), 255};
  }));
  EXPECT_TRUE(shows(capture->gpuImageView()->picture(), *plain));

  mark->setAlpha(0.4);
  capture->waterMarkContentView()->setBackgroundColor({1, 0, 0, 1});
  const auto former = capture->filter();
  capture->setWaterMarkView(mark);
  EXPECT_EQ(capture->blendFilter()->mix(), 0.4);
  EXPECT_TRUE(former->targets().empty());
  EXPECT_EQ(capture->videoCamera()->targets(), std::vector<std::shared_ptr<GPUImageInput>>{capture->filter()});
  const auto marked = streamed();
  EXPECT_TRUE(matches(marked, 480, 640, 0, [&](std::size_t x, std::size_t y) { return colorAt(*plain, x, y); }));
  EXPECT_TRUE(shows(capture->gpuImageView()->picture(), *plain, [](Color color) {
    return Color{std::lerp(color[0], 0.0, 0.4), std::lerp(color[1], 0.0, 0.4), std::lerp(color[2], 255.0, 0.4), 255};
  }));

  capture->setWaterMarkView(std::make_shared<View>());
  EXPECT_EQ(capture->blendFilter()->mix(), 1.0);
  EXPECT_TRUE(host->subviews().empty());
  streamed();
  EXPECT_TRUE(shows(capture->gpuImageView()->picture(), *plain, [](Color) { return Color{0, 0, 255, 255}; }));
  capture->setWaterMarkView(nullptr);
  EXPECT_TRUE(streamed());
  EXPECT_TRUE(shows(capture->gpuImageView()->picture(), *plain));
  EXPECT_TRUE(capture->blendFilter()->targets().empty());
  capture->setPreView(nullptr);
  EXPECT_FALSE(capture->preView());
  EXPECT_EQ(window->subviews().size(), 1U);
}

TEST_F(VideoCapture, TheFrontCameraIsMirroredFromTheNextStartOrSwitchOn) {
  make();
  EXPECT_EQ(turnOf(*capture->videoCamera()), "1") << "not before the chain is built";
  capture->setRunning(true);
  EXPECT_EQ(turnOf(*capture->videoCamera()), "1 front");
  capture->setVideoFrameRate(7);
  capture->setCaptureDevicePosition(1);
  EXPECT_EQ(turnOf(*capture->videoCamera()), "1") << "the rear one is not";
  EXPECT_EQ(capture->videoFrameRate(), 24) << "and runs at the configured rate";
  capture->setMirror(false);
  capture->setCaptureDevicePosition(2);
  EXPECT_EQ(turnOf(*capture->videoCamera()), "1");
  capture->setMirror(true);
  EXPECT_EQ(turnOf(*capture->videoCamera()), "1");
  capture->setRunning(false);
  capture->setRunning(true);
  EXPECT_EQ(turnOf(*capture->videoCamera()), "1 front");
}

TEST_F(VideoCapture, RunsOnceAndKeepsTheScreenOnMeanwhile) {
  make();
  const auto& session = *cameras->session;
  capture->setRunning(true);
  capture->setRunning(true);
  EXPECT_EQ(session.starts, 1);
  EXPECT_TRUE(manual.device->staysOn);
  EXPECT_TRUE(streamed());
  manual.notifications->post(notification::WillResignActive);
  EXPECT_FALSE(manual.device->staysOn);
  EXPECT_TRUE(session.running);
  EXPECT_FALSE(streamed());
  manual.notifications->post(notification::DidBecomeActive);
  EXPECT_TRUE(manual.device->staysOn);
  EXPECT_TRUE(streamed());
  capture->setRunning(false);
  EXPECT_FALSE(manual.device->staysOn);
  EXPECT_FALSE(streamed());
  for (const auto& [asked, rate] : std::vector<std::pair<std::int64_t, int>>{{0, 24}, {-5, 24}, {100, 100}}) {
    capture->setVideoFrameRate(asked);
    EXPECT_EQ(capture->videoFrameRate(), rate);
  }
  cameras->front->durations = {};
  capture->setVideoFrameRate(100);
  EXPECT_EQ(cameras->front->durations.first, MediaTime{}) << "has it already";
  manual.notifications->post(notification::DidBecomeActive);
  capture.reset();
  EXPECT_FALSE(manual.device->staysOn);
}

TEST_F(VideoCapture, TorchAndZoomAreTheCamerasToGrant) {
  make();
  const LogCapture log;
  auto& front = *cameras->front;
  EXPECT_EQ(front.zoom, 1);
  capture->setZoomScale(2.5);
  EXPECT_EQ(front.zoom, 2.5);
  capture->setTorch(true);
  EXPECT_TRUE(capture->torch());
  EXPECT_FALSE(front.locked);
  front.lockable = false;
  capture->setZoomScale(3);
  EXPECT_EQ(capture->zoomScale(), 2.5);
  EXPECT_EQ(log.count(""), 0U);
  capture->setTorch(false);
  EXPECT_TRUE(capture->torch());
  EXPECT_EQ(log.count(LogLevel::Error, "Live: Error while locking device for torch: held by somebody else"), 1U);
  front.lockable = true;
  capture->setTorch(false);
  EXPECT_FALSE(capture->torch());
  front.torch = false;
  capture->setTorch(true);
  EXPECT_EQ(front.torchIs, 0);
  EXPECT_EQ(log.count(LogLevel::Information, "Live: Torch not available in current camera input"), 1U);
  EXPECT_EQ(cameras->session->open, 0);
}

TEST_F(VideoCapture, TheStatusBarTurnsThePictureWithinItsFamily) {
  const LogCapture log;
  for (const bool landscape : {false, true}) {
    configuration->setOutputImageOrientation(landscape ? 3 : 1);
    for (const auto& [current, upright, sideways] :
         std::vector<std::array<std::int64_t, 3>>{{0, 9, 9}, {1, 2, 9}, {2, 1, 9}, {3, 9, 4}, {4, 9, 3}, {5, 9, 9}}) {
      for (const bool turns : {false, true}) {
        cameras->next = std::make_shared<FakeCaptureSession>();
        make();
        configuration->setAutorotate(turns);
        capture->videoCamera()->setOutputImageOrientation(9);
        manual.device->statusBar = current;
        manual.notifications->post(notification::WillChangeStatusBarOrientation, {{"orientation", 7}});
        EXPECT_EQ(capture->videoCamera()->outputImageOrientation(), !turns      ? 9
                                                                    : landscape ? sideways
                                                                                : upright)
            << "from " << current;
      }
    }
  }
  EXPECT_EQ(log.count(LogLevel::Information,
                      "Live: UIApplicationWillChangeStatusBarOrientationNotification userInfo "
                      "{orientation = 7;}"),
            24U);
}

TEST_F(VideoCapture, WithoutAFrontCameraNothingHappensAndOneLineSaysSo) {
  cameras->all = {cameras->rear};
  const LogCapture log;
  make();
  capture->setRunning(true);
  capture->setWaterMarkView(std::make_shared<View>());
  capture->setCaptureDevicePosition(1);
  capture->setVideoFrameRate(10);
  capture->setTorch(true);
  manual.notifications->post(notification::WillResignActive);
  manual.notifications->post(notification::DidBecomeActive);
  EXPECT_EQ(capture->captureDevicePosition() + capture->videoFrameRate(), 0);
  EXPECT_FALSE(capture->torch());
  EXPECT_EQ(log.count("no front camera can be used, so there are no pictures; cameras of this machine: rear"), 1U);
  EXPECT_EQ(log.count(""), 1U);
  cameras->all.push_back(cameras->front);
  capture->setRunning(false);
  capture->setRunning(true);
  EXPECT_TRUE(streamed()) << "there is one now";
}

TEST_F(VideoCapture, GoesAtAnyTimeWithFramesUnderWay) {
  FakeSessions sessions(30);
  whileMeddling([&] { sessions.deliver(picture); },
                [&] {
                  for (sessions.at = 0; sessions.at < sessions.all.size() - 1; ++sessions.at) {
                    const auto i = sessions.at.load();
                    cameras->next = sessions.all[i];
                    make();
                    capture->setRunning(true);
                    capture->setMirror(i % 2 == 0);
                    capture->setWaterMarkView(i % 3 == 0 ? std::make_shared<View>() : nullptr);
                    capture.reset();
                  }
                });
  // From inside its own delegate.
  make();
  receiver->then = [&] { capture.reset(); };
  capture->setRunning(true);
  EXPECT_TRUE(streamed());
  EXPECT_FALSE(capture);
  receiver->picture.reset();
  EXPECT_FALSE(streamed());
}

}  // namespace
}  // namespace zellive::test
