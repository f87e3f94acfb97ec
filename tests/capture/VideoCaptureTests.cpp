#include "zellive/capture/ZelLiveVideoCapture.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "tests/gpu/Golden.h"
#include "tests/support/Event.h"
#include "tests/support/FakeCameras.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/gpu/GPUImageQueues.h"

namespace zellive::test {
namespace {

class VideoCapture : public testing::Test {
 protected:
  /// Keeps the newest picture of the stream.
  struct Receiver : ZelLiveVideoCaptureDelegate {
    void videoCaptureOutputPixelBuffer(ZelLiveVideoCapture*, std::shared_ptr<PixelBuffer> pixelBuffer) override {
      picture = std::move(pixelBuffer);
      then();
    }
    std::shared_ptr<PixelBuffer> picture;
    std::function<void()> then = [] {};
  };

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
  /// Whether the preview shows `of`, with this much red over it.
  testing::AssertionResult previewed(const PixelBuffer& of, double red) const {
    return matches(capture->gpuImageView()->picture(), of.width(), of.height(), 2, [&](std::size_t x, std::size_t y) {
      const auto color = colorAt(of, x, y);
      return Color{std::lerp(color[0], 0, red), std::lerp(color[1], 0, red), std::lerp(color[2], 255, red), 255};
    });
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
  EXPECT_EQ(plain->width(), 480U);
  EXPECT_TRUE(previewed(*plain, 0));

  const auto former = capture->filter();
  capture->waterMarkContentView()->setBackgroundColor({1, 0, 0, 1});
  mark->setAlpha(0.4);
  capture->setWaterMarkView(mark);
  EXPECT_EQ(capture->blendFilter()->mix(), 0.4);
  EXPECT_TRUE(former->targets().empty());
  EXPECT_EQ(capture->videoCamera()->targets(), std::vector<std::shared_ptr<GPUImageInput>>{capture->filter()});
  EXPECT_TRUE(matches(streamed(), 480, 640, 0, [&](std::size_t x, std::size_t y) { return colorAt(*plain, x, y); }));
  EXPECT_TRUE(previewed(*plain, 0.4));

  capture->setWaterMarkView(std::make_shared<View>());
  EXPECT_TRUE(host->subviews().empty());
  streamed();
  EXPECT_TRUE(previewed(*plain, 1));
  capture->setWaterMarkView(nullptr);
  streamed();
  EXPECT_TRUE(previewed(*plain, 0));
  capture->setPreView(nullptr);
  EXPECT_FALSE(capture->preView());
  EXPECT_EQ(window->subviews().size(), 1U);
}

TEST_F(VideoCapture, TheFrontCameraIsMirroredFromTheNextStartOrSwitchOn) {
  make();
  const auto mirrored = [&] { return capture->videoCamera()->horizontallyMirrorFrontFacingCamera(); };
  EXPECT_FALSE(mirrored()) << "the chain is yet to be built";
  capture->setRunning(true);
  EXPECT_TRUE(mirrored());
  capture->setVideoFrameRate(7);
  capture->setCaptureDevicePosition(1);
  EXPECT_FALSE(mirrored()) << "the rear one is not";
  EXPECT_EQ(capture->videoFrameRate(), 24) << "and runs at the configured rate";
  capture->setMirror(false);
  capture->setCaptureDevicePosition(2);
  EXPECT_FALSE(mirrored());
  capture->setMirror(true);
  EXPECT_FALSE(mirrored());
  capture->setRunning(false);
  capture->setRunning(true);
  EXPECT_TRUE(mirrored());
  EXPECT_FALSE(capture->videoCamera()->horizontallyMirrorRearFacingCamera());
}

TEST_F(VideoCapture, RunsOnceAndKeepsTheScreenOnMeanwhile) {
  make();
  capture->setRunning(true);
  capture->setRunning(true);
  EXPECT_EQ(cameras->session->starts, 1);
  const auto expectOn = [&](bool screen, bool pictures) {
    EXPECT_EQ(manual.device->staysOn, screen);
    EXPECT_EQ(streamed() != nullptr, pictures);
  };
  expectOn(true, true);
  manual.notifications->post(notification::WillResignActive);
  expectOn(false, false);
  manual.notifications->post(notification::DidBecomeActive);
  expectOn(true, true);
  capture->setRunning(false);
  expectOn(false, false);
  for (const auto& [asked, rate] : {std::pair{0, 24}, {-5, 24}, {100, 100}}) {
    capture->setVideoFrameRate(asked);
    EXPECT_EQ(capture->videoFrameRate(), rate);
  }
  cameras->front->durations = {};
  capture->setVideoFrameRate(100);
  EXPECT_EQ(cameras->front->durations, MediaTime{}) << "it has that already";
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
  EXPECT_FALSE(capture->torch());
  EXPECT_EQ(log.count(LogLevel::Information, "Live: Torch not available in current camera input"), 1U);
  EXPECT_EQ(cameras->session->open, 0);
}

TEST_F(VideoCapture, TheStatusBarTurnsThePictureWithinItsFamily) {
  const LogCapture log;
  make();
  for (const auto& [current, upright, sideways] :
       std::to_array<std::array<int, 3>>({{0, 9, 9}, {1, 2, 9}, {2, 1, 9}, {3, 9, 4}, {4, 9, 3}, {5, 9, 9}})) {
    for (const auto& [orientation, turns, expected] :
         {std::tuple{1, true, upright}, {3, true, sideways}, {1, false, 9}, {3, false, 9}}) {
      configuration->setOutputImageOrientation(orientation);
      configuration->setAutorotate(turns);
      capture->videoCamera()->setOutputImageOrientation(9);
      manual.device->statusBar = current;
      manual.notifications->post(notification::WillChangeStatusBarOrientation, {{"to", 7}});
      EXPECT_EQ(capture->videoCamera()->outputImageOrientation(), expected) << current << orientation << turns;
    }
  }
  EXPECT_EQ(log.count("Live: UIApplicationWillChangeStatusBarOrientationNotification userInfo {to = 7;}"), 24U);
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
  EXPECT_EQ(capture->captureDevicePosition() + capture->videoFrameRate() + capture->torch(), 0);
  EXPECT_EQ(log.count("no front camera can be used, so there are no pictures; cameras of this machine: rear"), 1U);
  EXPECT_EQ(log.count(""), 1U);
  cameras->all.push_back(cameras->front);
  EXPECT_EQ(capture->captureDevicePosition(), 2);
  EXPECT_TRUE(streamed()) << "there is one now";
}

TEST_F(VideoCapture, GoesAtAnyTimeWithFramesUnderWay) {
  std::vector<std::shared_ptr<FakeCaptureSession>> sessions(30);
  std::ranges::generate(sessions, [] { return std::make_shared<FakeCaptureSession>(); });
  std::atomic<std::size_t> at = 0;
  whileMeddling([&] { sessions[at]->deliver(picture); },
                [&] {
                  for (; at < sessions.size() - 1; ++at) {
                    cameras->next = sessions[at];
                    make();
                    capture->setRunning(true);
                    capture->setWaterMarkView(at % 3 == 0 ? std::make_shared<View>() : nullptr);
                    capture.reset();
                  }
                });
  runSynchronouslyOnVideoProcessingQueue([] {});
  EXPECT_TRUE(std::ranges::none_of(sessions, [](const auto& each) { return each->running || each->camera; }));
  make();
  receiver->then = [&] { capture.reset(); };  // From inside its own delegate.
  capture->setRunning(true);
  EXPECT_TRUE(streamed());
  EXPECT_FALSE(capture || streamed());
}

}  // namespace
}  // namespace zellive::test
