#include "zellive/gpu/GPUImageVideoCamera.h"

#include "tests/gpu/GpuTest.h"
#include "tests/support/Event.h"
#include "tests/support/FakeCameras.h"
#include "tests/support/ManualPlatform.h"

namespace zellive::test {
namespace {

constexpr auto kRear = CaptureDevicePositionBack;
constexpr auto kFront = CaptureDevicePositionFront;

struct Matrix {
  double black, luma, crRed, cbGreen, crGreen, cbBlue;
};
constexpr Matrix k601Full{0, 1, 1.4, -0.343, -0.711, 1.765};
constexpr Matrix k601{16, 1.164, 1.596, -0.392, -0.813, 2.017};
constexpr Matrix k709{16, 1.164, 1.793, -0.213, -0.533, 2.112};
constexpr Matrix k709AsFull{0, 1.164, 1.793, -0.213, -0.533, 2.112};

class VideoCamera : public testing::Test {
 protected:
  void make(CaptureDevicePosition position = kRear) {
    auto platform = std::make_shared<Platform>(*defaultPlatform());
    platform->cameras = cameras;
    camera = GPUImageVideoCamera::create("AVCaptureSessionPreset1280x720", position, platform);
    if (camera) {
      camera->addTarget(sink);
      camera->startCameraCapture();
    }
  }
  /// What the targets got for one picture.
  std::shared_ptr<PixelBuffer> frameOf(const std::shared_ptr<PixelBuffer>& taken, std::int64_t at = 0) {
    cameras->session->deliver(taken, at);
    onQueue([] {});
    return sink->last ? sink->last->pixelBuffer() : nullptr;
  }
  testing::AssertionResult showsPicture(const Turn& turn, const Matrix& m) {
    const auto width = turn.swaps ? picture->height() : picture->width();
    const auto height = turn.swaps ? picture->width() : picture->height();
    const Size size{static_cast<double>(width), static_cast<double>(height)};
    auto pairs = picture->plane(1);  // Whole ones only.
    pairs.width = picture->width() / 2;
    pairs.height = picture->height() / 2;
    return matches(frameOf(picture), width, height, 2.5, [&](auto x, auto y) {
      const auto at = turn.source(x, y, size);
      const double luma = (sampleLinear(picture->plane(0), 1, at.x, at.y)[0] - m.black) * m.luma;
      const auto pair = sampleLinear(pairs, 2, at.x, at.y);
      const double cb = pair[0] - 127.5;
      const double cr = pair[1] - 127.5;
      return Color{luma + m.cbBlue * cb, luma + m.cbGreen * cb + m.crGreen * cr, luma + m.crRed * cr, 255};
    });
  }

  const std::shared_ptr<FakeCameras> cameras = std::make_shared<FakeCameras>();
  const std::shared_ptr<Recorder> sink = std::make_shared<Recorder>();
  std::shared_ptr<PixelBuffer> picture = samplePicture(PixelFormat::BiPlanarFullRange, 64, 36);
  std::shared_ptr<GPUImageVideoCamera> camera;
};

TEST_F(VideoCamera, TurnsAndMirrorsByPositionAndOrientation) {
  struct Row {
    CaptureDevicePosition position;
    bool mirrors;
    int turns[6];  // For orientations 0 to 5.
  };
  for (const auto& row : {Row{kRear, false, {0, 2, 1, 0, 7, 0}}, Row{kRear, true, {0, 5, 7, 3, 4, 0}},
                          Row{kFront, false, {0, 2, 1, 7, 0, 0}}, Row{kFront, true, {0, 5, 6, 3, 4, 0}}}) {
    make(row.position);
    for (int orientation = 0; orientation < 6; ++orientation) {
      // The other camera's flag counts for nothing.
      camera->setHorizontallyMirrorRearFacingCamera(row.mirrors == (row.position == kRear));
      camera->setHorizontallyMirrorFrontFacingCamera(row.mirrors == (row.position == kFront));
      camera->setOutputImageOrientation(orientation);
      const auto& turn = kTurns[row.turns[orientation]];
      EXPECT_TRUE(showsPicture(turn, k601Full)) << row.position << row.mirrors << orientation;
      EXPECT_EQ(sink->size, (turn.swaps ? Size{36, 64} : Size{64, 36}));
      EXPECT_EQ(sink->turn, kGPUImageTurnNone);
    }
  }
}

TEST_F(VideoCamera, PicturesOfOddSizesAreShownWhole) {
  for (const auto& [width, height] : {std::pair{62U, 36U}, {63U, 35U}}) {
    cameras->next = std::make_shared<FakeCaptureSession>();
    picture = samplePicture(PixelFormat::BiPlanarFullRange, width, height);
    make();
    EXPECT_TRUE(showsPicture(kTurns[0], k601Full)) << width;
  }
}

TEST_F(VideoCamera, TheMatrixFollowsTagAndRange) {
  for (const auto& [fullRange, tag, matrix] : {std::tuple{true, ColorMatrix::Unspecified, &k601Full},
                                               {true, ColorMatrix::BT601, &k601Full},
                                               {true, ColorMatrix::BT709, &k709AsFull},
                                               {false, ColorMatrix::Unspecified, &k601},
                                               {false, ColorMatrix::BT601, &k601},
                                               {false, ColorMatrix::BT709, &k709}}) {
    cameras->next = std::make_shared<FakeCaptureSession>();
    cameras->next->formats.resize(fullRange ? 2 : 1);
    make();
    picture->setColorMatrix(tag);
    EXPECT_TRUE(showsPicture(kTurns[0], *matrix)) << fullRange << static_cast<int>(tag);
  }
  setColorConversion709({});
  EXPECT_TRUE(showsPicture(kTurns[0], {})) << "replaced by one that is all black";
  setColorConversion709(kColorConversion709);
}

TEST_F(VideoCamera, OneFrameIsInTheMakingAndOthersAreDropped) {
  struct Counter : GPUImageVideoCameraDelegate {
    void willOutputSampleBuffer(const CaptureSampleBuffer& sample) override { seen += sample.presentationTime.value; }
    std::int64_t seen = 0;
  };
  make();
  const auto counter = std::make_shared<Counter>();
  camera->setDelegate(counter);
  Event mayGoOn;
  videoProcessingQueue()->async([&] { EXPECT_TRUE(mayGoOn.wait()); });
  for (const int at : {1, 10, 100}) {
    cameras->session->deliver(picture, at);
  }
  mayGoOn.set();
  onQueue([] {});
  frameOf(picture, 1000);
  camera->stopCameraCapture();
  frameOf(picture, 2000);
  camera->startCameraCapture();
  camera->pauseCameraCapture();
  frameOf(picture, 4000);
  EXPECT_EQ(counter->seen, 5001) << "also while paused";
  camera->resumeCameraCapture();
  frameOf(nullptr, 5000);
  frameOf(samplePicture(PixelFormat::BGRA, 8, 8), 6000);
  frameOf(picture, 7000);
  EXPECT_EQ(sink->times, (std::vector<std::int64_t>{1, 1000, 7000}));
  EXPECT_EQ(sink->last->framebufferReferenceCount(), 0U);
}

TEST_F(VideoCamera, TargetsGetFramesUnlessDisabledOrIgnoredAndSizesOnceBothSidesDiffer) {
  make();
  const auto disabled = GPUImageFilter::create();
  const auto ignored = std::make_shared<Recorder>(true);
  disabled->addTarget(sink);
  disabled->setEnabled(false);
  camera->addTarget(disabled);
  camera->addTarget(ignored);
  frameOf(picture);
  EXPECT_EQ(frameOf(samplePicture(PixelFormat::BiPlanarFullRange, 64, 48))->height(), 36U);
  EXPECT_EQ(sink->size, (Size{64, 48}));
  EXPECT_EQ(frameOf(samplePicture(PixelFormat::BiPlanarFullRange, 32, 48))->width(), 32U);
  EXPECT_EQ(sink->times.size(), 3U);
  EXPECT_TRUE(ignored->times.empty());
  const LogCapture log;
  EXPECT_TRUE(frameOf(samplePicture(PixelFormat::Planar, 128, 8))) << "has no plane of pairs";
  EXPECT_EQ(log.count(LogLevel::Error, "Error at CVOpenGLESTextureCacheCreateTextureFromImage -2"), 1U);
  GpuPlatform::contextLost = true;
  EXPECT_FALSE(frameOf(picture));
  GpuPlatform::contextLost = false;
  EXPECT_EQ(sink->times.size(), 5U);
  EXPECT_EQ(log.count(""), 1U) << "what is lost is said elsewhere";
}

TEST_F(VideoCamera, IsTheLastOneAtThePositionAndChangesToTheOther) {
  cameras->all.push_back(std::make_shared<FakeCamera>(kRear, "second"));
  make();
  auto& session = *cameras->session;
  EXPECT_EQ(session.preset, "AVCaptureSessionPreset1280x720");
  const auto expectCamera = [&](const std::shared_ptr<FakeCamera>& expected) {
    EXPECT_EQ(session.camera, expected);
    EXPECT_EQ(camera->inputCamera(), expected);
    EXPECT_EQ(session.open, 0);
  };
  expectCamera(cameras->all.back());
  session.refused = cameras->front;
  camera->rotateCamera();
  expectCamera(cameras->all.back());
  session.refused.reset();
  camera->rotateCamera();
  expectCamera(cameras->front);
  cameras->all = {cameras->front};
  camera->rotateCamera();
  expectCamera(cameras->front);
  EXPECT_FALSE(camera->isBackFacingCameraPresent());
  make(kRear);
  EXPECT_FALSE(camera) << "no such camera";
  cameras->next = std::make_shared<FakeCaptureSession>();
  cameras->next->takesOutput = false;
  const LogCapture log;
  make(kFront);
  EXPECT_FALSE(camera);
  EXPECT_EQ(log.count(LogLevel::Error, "front gives no pictures"), 1U);
}

TEST_F(VideoCamera, TheFrameRateGoesToWhoeverTakesIt) {
  make();
  auto& rear = *cameras->rear;
  camera->setFrameRate(25);
  EXPECT_EQ(rear.durations, MediaTime::make(1, 25));
  EXPECT_FALSE(rear.locked);
  rear.lockable = false;
  camera->setFrameRate(0);
  EXPECT_EQ(rear.durations, MediaTime::make(1, 25)) << "the camera refuses";
  rear.lockable = true;
  camera->setFrameRate(-1);
  EXPECT_EQ(rear.durations, MediaTime{});
  EXPECT_EQ(cameras->session->durations, MediaTime{});
  rear.hasDurations = false;
  camera->setFrameRate(10);
  EXPECT_EQ(cameras->session->durations, MediaTime::make(1, 10));
  EXPECT_EQ(rear.durations, MediaTime{});
}

TEST_F(VideoCamera, ARunningCameraMakesNothingAndDrawsOnceAFrame) {
  make();
  sink->times.reserve(120);
  Counts before{};
  onQueue([&] {
    for (int frame = 0; frame < 120; ++frame) {
      before = frame == 20 ? counted() : before;
      camera->processVideoSampleBuffer({picture, MediaTime::make(frame, 30)});
    }
    const auto spent = counted() - before;
    EXPECT_EQ(spent.draws, 100U);
    EXPECT_EQ(spent.glObjects + spent.textureStorages + spent.allocations, 0U);
  });
}

}  // namespace
}  // namespace zellive::test
