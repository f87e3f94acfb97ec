#include <gtest/gtest.h>

#include "tests/gpu/GpuTest.h"
#include "tests/support/Event.h"
#include "tests/support/FakeCameras.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/gpu/GPUImageVideoCamera.h"

namespace zellive::test {
namespace {

constexpr auto kRear = CaptureDevicePositionBack;
constexpr auto kFront = CaptureDevicePositionFront;

class VideoCamera : public testing::Test {
 protected:
  void make(CaptureDevicePosition position = kRear) {
    auto platform = std::make_shared<Platform>(*defaultPlatform());
    platform->cameras = cameras;
    platform->clock = time;
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

  const std::shared_ptr<FakeCameras> cameras = std::make_shared<FakeCameras>();
  const std::shared_ptr<ManualTime> time = std::make_shared<ManualTime>();
  const std::shared_ptr<Recorder> sink = std::make_shared<Recorder>();
  const std::shared_ptr<PixelBuffer> picture = samplePicture(PixelFormat::BiPlanarFullRange, 64, 36);
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
      const Turn turn = kTurns[row.turns[orientation]];
      const Size size = turn.swaps ? Size{36, 64} : Size{64, 36};
      const auto frame = frameOf(picture);
      EXPECT_TRUE(
          matches(frame, static_cast<std::size_t>(size.width), static_cast<std::size_t>(size.height), 4,
                  [&](std::size_t x, std::size_t y) {
                    const auto at = turn.source(x, y, size);
                    const double luma = sampleLinear(picture->plane(0), 1, at.x, at.y)[0];
                    const auto pair = sampleLinear(picture->plane(1), 2, at.x, at.y);
                    const double cb = pair[0] - 127.5;
                    const double cr = pair[1] - 127.5;
                    return Color{luma + 1.772 * cb, luma - 0.344136 * cb - 0.714136 * cr, luma + 1.402 * cr, 255};
                  }))
          << "position " << row.position << ", mirrored " << row.mirrors << ", orientation " << orientation;
      EXPECT_EQ(sink->size, size);
      EXPECT_EQ(sink->turn, kGPUImageTurnNone);
    }
  }
}

TEST_F(VideoCamera, TheMatrixFollowsTagAndRange) {
  struct Row {
    bool fullRange;
    ColorMatrix tag;
    double black, luma, crRed, cbGreen, crGreen, cbBlue;
  };
  for (const auto& row : {Row{true, ColorMatrix::Unspecified, 0, 1, 1.4, -0.343, -0.711, 1.765},
                          Row{true, ColorMatrix::BT601, 0, 1, 1.4, -0.343, -0.711, 1.765},
                          Row{true, ColorMatrix::BT709, 0, 1.164, 1.793, -0.213, -0.533, 2.112},
                          Row{false, ColorMatrix::Unspecified, 16, 1.164, 1.596, -0.392, -0.813, 2.017},
                          Row{false, ColorMatrix::BT601, 16, 1.164, 1.596, -0.392, -0.813, 2.017},
                          Row{false, ColorMatrix::BT709, 16, 1.164, 1.793, -0.213, -0.533, 2.112}}) {
    cameras->next = std::make_shared<FakeCaptureSession>();
    if (!row.fullRange) {
      cameras->next->formats = {PixelFormat::BiPlanarVideoRange};
    }
    make();
    const auto tagged = PixelBuffer::create(cameras->session->format, 8, 8);
    std::fill_n(tagged->plane(0).base, 8 * tagged->plane(0).bytesPerRow, 100);
    for (std::size_t i = 0; i < 4 * tagged->plane(1).bytesPerRow; ++i) {
      tagged->plane(1).base[i] = i % 2 == 0 ? 110 : 150;
    }
    tagged->setColorMatrix(row.tag);
    const double y = (100 - row.black) * row.luma;
    const double cb = 110 - 127.5;
    const double cr = 150 - 127.5;
    EXPECT_TRUE(
        matches(frameOf(tagged), 8, 8, 1.01,
                [&](auto, auto) {
                  return Color{y + row.cbBlue * cb, y + row.cbGreen * cb + row.crGreen * cr, y + row.crRed * cr, 255};
                }))
        << row.fullRange << ", tag " << static_cast<int>(row.tag);
  }
  setColorConversion709({0, 0, 0, 0, 0, 0, 0, 0, 0});
  picture->setColorMatrix(ColorMatrix::BT709);
  EXPECT_TRUE(matches(frameOf(picture), 64, 36, 0, [](auto, auto) { return Color{0, 0, 0, 255}; }));
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

TEST_F(VideoCamera, TargetsThatAreDisabledOrIgnoredGetNothing) {
  make();
  const auto disabled = GPUImageFilter::create();
  const auto ignored = std::make_shared<Recorder>(true);
  const auto behind = std::make_shared<Recorder>();
  disabled->addTarget(behind);
  disabled->setEnabled(false);
  camera->addTarget(disabled);
  camera->addTarget(ignored);
  frameOf(picture);
  EXPECT_EQ(sink->times.size(), 1U);
  EXPECT_EQ(behind->times.size() + ignored->times.size(), 0U);
}

TEST_F(VideoCamera, ASizeCountsOnceBothSidesDiffer) {
  make();
  frameOf(picture);
  EXPECT_EQ(frameOf(samplePicture(PixelFormat::BiPlanarFullRange, 64, 48))->height(), 36U);
  EXPECT_EQ(sink->size, (Size{64, 48}));
  EXPECT_EQ(frameOf(samplePicture(PixelFormat::BiPlanarFullRange, 32, 48))->width(), 32U);
  const LogCapture log;
  EXPECT_TRUE(frameOf(samplePicture(PixelFormat::Planar, 128, 8))) << "has no plane of pairs";
  EXPECT_EQ(log.count(LogLevel::Error, "Error at CVOpenGLESTextureCacheCreateTextureFromImage -2"), 1U);
}

TEST_F(VideoCamera, TheLastCameraAtThePositionIsSetUp) {
  cameras->all.push_back(std::make_shared<FakeCamera>(kRear, "second"));
  make();
  EXPECT_EQ(camera->inputCamera(), cameras->all.back());
  EXPECT_EQ(cameras->session->camera, cameras->all.back());
  EXPECT_EQ(cameras->session->preset, "AVCaptureSessionPreset1280x720");
  EXPECT_EQ(cameras->session->open, 0);
  cameras->session->refused = cameras->front;
  camera->rotateCamera();
  EXPECT_EQ(cameras->session->camera, cameras->all.back()) << "goes on with the one that it has";
  EXPECT_EQ(camera->cameraPosition(), kRear);
  cameras->session->refused.reset();
  camera->rotateCamera();
  EXPECT_EQ(cameras->session->camera, cameras->front);
  EXPECT_EQ(camera->cameraPosition(), kFront);
  cameras->all = {cameras->front};
  camera->rotateCamera();
  EXPECT_EQ(camera->cameraPosition(), kFront);
  EXPECT_FALSE(camera->isBackFacingCameraPresent());
  EXPECT_EQ(cameras->session->open, 0);
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
  const auto& session = *cameras->session;
  const auto both = [](MediaTime duration) { return std::pair(duration, duration); };
  camera->setFrameRate(25);
  EXPECT_EQ(cameras->rear->durations, both(MediaTime::make(1, 25)));
  EXPECT_FALSE(cameras->rear->locked);
  cameras->rear->lockable = false;
  camera->setFrameRate(0);
  EXPECT_EQ(cameras->rear->durations, both(MediaTime::make(1, 25)));
  cameras->rear->lockable = true;
  camera->setFrameRate(-1);
  EXPECT_EQ(cameras->rear->durations, both({}));
  EXPECT_EQ(session.durations, both({})) << "untouched";
  cameras->rear->hasDurations = false;
  camera->setFrameRate(10);
  EXPECT_EQ(session.durations, both(MediaTime::make(1, 10)));
  EXPECT_EQ(camera->frameRate(), 10);
}

TEST_F(VideoCamera, TheBenchmarkLeavesTheFirstFiveFramesOut) {
  struct Slow : Recorder {
    explicit Slow(std::shared_ptr<ManualTime> clock) : time(std::move(clock)) {}
    void newFrameReadyAtTime(MediaTime at, std::size_t index) override {
      Recorder::newFrameReadyAtTime(at, index);
      time->advance(std::chrono::milliseconds(times.size() > 5 ? 4 : 100));
    }
    const std::shared_ptr<ManualTime> time;
  };
  make();
  camera->addTarget(std::make_shared<Slow>(time));
  camera->setRunBenchmark(true);
  const LogCapture log;
  for (int i = 0; i < 7; ++i) {
    frameOf(picture);
  }
  EXPECT_DOUBLE_EQ(camera->averageFrameDurationDuringCapture(), 4);
  EXPECT_EQ(log.count("average"), 2U);
  camera->resetBenchmarkAverage();
  EXPECT_EQ(camera->averageFrameDurationDuringCapture(), 0);
}

TEST_F(VideoCamera, ARunningCameraMakesNothingAndDrawsOnceAFrame) {
  make();
  sink->times.reserve(120);
  onQueue([&] {
    Counts before{};
    for (int frame = 0; frame < 120; ++frame) {
      if (frame == 20) {
        before = counted();
      }
      camera->processVideoSampleBuffer({picture, MediaTime::make(frame, 30)});
    }
    const auto spent = counted() - before;
    EXPECT_EQ(spent.draws, 100U);
    EXPECT_EQ(spent.glObjects + spent.textureStorages + spent.allocations, 0U);
  });
}

TEST_F(VideoCamera, ALostContextLeavesFramesDark) {
  make();
  const LogCapture log;
  GpuPlatform::contextLost = true;
  EXPECT_FALSE(frameOf(picture));
  GpuPlatform::contextLost = false;
  EXPECT_EQ(sink->times.size(), 1U);
  EXPECT_EQ(log.count(""), 0U);
}

TEST_F(VideoCamera, GoesAtAnyTimeWithFramesUnderWay) {
  FakeSessions sessions(100);
  whileMeddling([&] { sessions.deliver(picture); },
                [&] {
                  for (sessions.at = 0; sessions.at < sessions.all.size() - 1; ++sessions.at) {
                    cameras->next = sessions.all[sessions.at];
                    make();
                    camera->setOutputImageOrientation(static_cast<std::int64_t>(sessions.at % 5));
                    camera.reset();
                  }
                });
  onQueue([] {});
  EXPECT_TRUE(std::ranges::none_of(sessions.all, [](const auto& each) { return each->running || each->camera; }));
}

}  // namespace
}  // namespace zellive::test
