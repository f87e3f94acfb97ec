#include "zellive/platform/linux/LinuxCameras.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <mutex>

#include "tests/support/ManualPlatform.h"
#include "tests/support/PipeWireDaemon.h"
#include "zellive/platform/TestCardCamera.h"
#include "zellive/platform/linux/LinuxDevice.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;
using test::PipeWireDaemon;
using test::waitUntil;

constexpr auto kLimit = 40s;

/// Keeps the latest picture and counts.
class Output : public CaptureVideoDataOutputDelegate {
 public:
  void captureOutputDidOutputSampleBuffer(CaptureSession* /*session*/, const CaptureSampleBuffer& buffer) override {
    const std::lock_guard lock(mutex_);
    latest_ = buffer;
    ++count;
  }
  /// The latest picture, and how many there have been.
  [[nodiscard]] std::pair<CaptureSampleBuffer, int> latest() const {
    const std::lock_guard lock(mutex_);
    return {latest_, count};
  }
  std::atomic<int> count = 0;

 private:
  mutable std::mutex mutex_;
  CaptureSampleBuffer latest_;
};

struct LinuxCamerasTest : testing::Test {
  void SetUp() override {
    if (!PipeWireDaemon::available()) {
      GTEST_SKIP() << "PipeWire, WirePlumber and GStreamer are not installed";
    }
    daemon = std::make_unique<PipeWireDaemon>();
    cameras =
        std::make_shared<LinuxCameras>(std::make_shared<PipeWireConnection>(platform->queues->makeSerialQueue("test")),
                                       platform->queues, platform->clock);
  }

  [[nodiscard]] std::shared_ptr<CaptureDevice> find(const std::string& name) const {
    for (const auto& camera : cameras->devices()) {
      if (camera->uniqueID() == name) {
        return camera;
      }
    }
    return nullptr;
  }
  /// Waits until the camera is there and has told what it can do.
  std::shared_ptr<CaptureDevice> await(const std::string& name) {
    std::shared_ptr<CaptureDevice> camera;
    EXPECT_TRUE(waitUntil([&] { return (camera = find(name)) && !camera->formats().empty(); }, kLimit))
        << daemon->log();
    return camera;
  }
  void run(const std::shared_ptr<CaptureDevice>& camera, PixelFormat format = PixelFormat::BiPlanarVideoRange) {
    session = cameras->makeSession();
    ASSERT_TRUE(session->addInput(camera));
    ASSERT_TRUE(session->addVideoDataOutput(format));
    session->setSessionPreset("AVCaptureSessionPreset1280x720");
    session->setSampleBufferDelegate(output, platform->queues->globalQueue());
    session->startRunning();
  }
  /// Whether so many more pictures come.
  [[nodiscard]] bool delivers(int pictures) const {
    const int before = output->count;
    return waitUntil([&] { return output->count >= before + pictures; }, kLimit);
  }
  /// Pictures a second, by their times, of so many more.
  [[nodiscard]] double rateOf(int pictures) const {
    const auto [from, countFrom] = output->latest();
    EXPECT_TRUE(delivers(pictures));
    const auto [to, countTo] = output->latest();
    return (countTo - countFrom) * 1e9 / static_cast<double>(to.presentationTime.value - from.presentationTime.value);
  }

  std::shared_ptr<const Platform> platform = defaultPlatform();
  LogCapture log;
  std::unique_ptr<PipeWireDaemon> daemon;
  std::shared_ptr<LinuxCameras> cameras;
  std::shared_ptr<Output> output = std::make_shared<Output>();
  std::shared_ptr<CaptureSession> session;
};

/// The seven bars of GStreamer's picture, by the matrix of BT.709.
void expectBars(const PixelBuffer& picture) {
  struct Bar {
    int y;
    int cb;
    int cr;
  };
  constexpr std::array bars{Bar{235, 128, 128}, Bar{219, 16, 138}, Bar{188, 154, 16}, Bar{173, 42, 26},
                            Bar{78, 214, 230},  Bar{63, 102, 240}, Bar{32, 240, 118}};
  for (std::size_t i = 0; i < bars.size(); ++i) {
    const std::size_t x = (2 * i + 1) * picture.width() / 14 / 2 * 2;
    const std::size_t y = picture.height() / 4;
    const auto& chroma = picture.plane(1);
    EXPECT_NEAR(picture.plane(0).base[y * picture.plane(0).bytesPerRow + x], bars[i].y, 4) << "bar " << i;
    EXPECT_NEAR(chroma.base[y / 2 * chroma.bytesPerRow + x], bars[i].cb, 4) << "bar " << i;
    EXPECT_NEAR(chroma.base[y / 2 * chroma.bytesPerRow + x + 1], bars[i].cr, 4) << "bar " << i;
  }
}

TEST_F(LinuxCamerasTest, ListsRealCamerasBeforeVirtualOnesAndKnowsWhereTheyAre) {
  const auto first = cameras->devices();
  ASSERT_EQ(first.size(), 1U);  // The test card, which is nowhere unless somebody puts it there.
  EXPECT_TRUE(first[0]->isVirtual());
  EXPECT_EQ(first[0]->position(), CaptureDevicePositionUnspecified);
  const LinuxDevice device(cameras);
  EXPECT_TRUE(device.cameraSupportsPreset("AVCaptureSessionPreset3840x2160"));  // Nobody to ask.

  const auto plain = PipeWireDaemon::plugIn({.name = "plain"});
  const auto camera = await("plain");
  ASSERT_NE(camera, nullptr);
  EXPECT_EQ(camera->localizedName(), "plain");
  EXPECT_FALSE(camera->isVirtual());
  const auto formats = camera->formats();
  ASSERT_EQ(formats.size(), 1U);
  EXPECT_EQ(formats[0].encoding, "NV12");
  EXPECT_EQ(formats[0].width, 1280U);
  EXPECT_EQ(formats[0].height, 720U);
  EXPECT_EQ(formats[0].maxFrameRate, 30);
  EXPECT_EQ(cameras->devices().front(), camera);
  EXPECT_EQ(camera->position(), CaptureDevicePositionFront);
  EXPECT_TRUE(device.cameraSupportsPreset("AVCaptureSessionPreset1280x720"));
  EXPECT_FALSE(device.cameraSupportsPreset("AVCaptureSessionPreset1920x1080"));
  EXPECT_FALSE(camera->hasTorch());

  const auto front = PipeWireDaemon::plugIn({.name = "selfie", .properties = "api.libcamera.location=front"});
  const auto selfie = await("selfie");
  ASSERT_TRUE(waitUntil([&] { return find("selfie")->position() == CaptureDevicePositionFront; }, kLimit));
  EXPECT_EQ(camera->position(), CaptureDevicePositionBack);

  EXPECT_FALSE(cameras->setDeviceAtPosition(CaptureDevicePositionFront, "nobody"));
  EXPECT_TRUE(cameras->setDeviceAtPosition(CaptureDevicePositionFront, "test card"));
  EXPECT_EQ(first[0]->position(), CaptureDevicePositionFront);
  EXPECT_NE(selfie->position(), CaptureDevicePositionFront);

  VirtualCamera own = testCardCamera();
  EXPECT_FALSE(cameras->addVirtualCamera(own));  // There is one of this ID.
  own.uniqueID = "own";
  EXPECT_TRUE(cameras->addVirtualCamera(own));
  EXPECT_EQ(cameras->devices().back()->uniqueID(), "own");
}

TEST_F(LinuxCamerasTest, DeliversPicturesOfTheCamerasColoursSizeAndRate) {
  struct Case {
    const char* format;
    int width;
  };
  // The others are converted, and of a width that leaves rows padded.
  for (const auto& [format, width] : {Case{"NV12", 1280}, Case{"YUY2", 1270}, Case{"I420", 1270}}) {
    SCOPED_TRACE(format);
    const auto process = PipeWireDaemon::plugIn({.name = format, .format = format, .width = width});
    const auto camera = await(format);
    ASSERT_NE(camera, nullptr);
    run(camera);
    ASSERT_TRUE(delivers(10)) << daemon->log();
    EXPECT_GT(rateOf(30), 12);
    camera->setActiveVideoFrameDurations(MediaTime::make(1, 10), MediaTime::make(1, 10));
    EXPECT_TRUE(waitUntil([&] { return rateOf(10) < 11; }, kLimit));
    const auto to = output->latest().first;
    const double age = platform->clock->milliseconds() - static_cast<double>(to.presentationTime.value) / 1e6;
    EXPECT_GE(age, 0);
    EXPECT_EQ(to.imageBuffer->width(), static_cast<std::size_t>(width));
    EXPECT_EQ(to.imageBuffer->height(), 720U);
    EXPECT_EQ(to.imageBuffer->format(), PixelFormat::BiPlanarVideoRange);
    expectBars(*to.imageBuffer);
    session.reset();
  }
}

TEST_F(LinuxCamerasTest, ACameraAndADaemonThatComeBackAreTakenUpAgain) {
  auto process = PipeWireDaemon::plugIn({});
  const auto camera = await("test-camera");
  run(camera);
  ASSERT_TRUE(delivers(5)) << daemon->log();
  process.reset();
  ASSERT_TRUE(waitUntil([&] { return log.count("\"test-camera\" has gone") == 1; }, kLimit));
  EXPECT_FALSE(camera->isConnected());
  process = PipeWireDaemon::plugIn({});
  ASSERT_TRUE(delivers(5)) << daemon->log();
  EXPECT_EQ(find("test-camera"), camera);
  EXPECT_TRUE(waitUntil([&] { return log.count("delivers pictures again") == 1; }, kLimit));

  daemon->kill();
  ASSERT_TRUE(waitUntil([&] { return log.count("\"test-camera\" has gone") == 2; }, kLimit));
  EXPECT_EQ(cameras->devices().size(), 1U);  // The test card needs no daemon.
  daemon->start();
  process = PipeWireDaemon::plugIn({});  // The camera's own program is none that connects again.
  ASSERT_TRUE(delivers(5)) << daemon->log();
}

TEST_F(LinuxCamerasTest, ACameraThatDeliversNothingIsToldOf) {
  const auto process = PipeWireDaemon::plugIn({});
  const auto camera = await("test-camera");
  ASSERT_NE(camera, nullptr);
  process->signal(SIGSTOP);
  run(camera);
  ASSERT_TRUE(waitUntil([&] { return log.count("\"test-camera\" delivers no pictures") == 1; }, kLimit));
  EXPECT_EQ(output->count, 0);
  process->signal(SIGCONT);
  ASSERT_TRUE(delivers(5)) << daemon->log();
  EXPECT_TRUE(waitUntil([&] { return log.count("delivers pictures again") == 1; }, kLimit));
}

}  // namespace
}  // namespace zellive
