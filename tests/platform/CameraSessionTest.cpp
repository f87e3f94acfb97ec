#include "zellive/platform/linux/CameraSession.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "zellive/platform/TestCardCamera.h"
#include "zellive/platform/linux/VirtualCameraDevice.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;

constexpr const char* k720p = "AVCaptureSessionPreset1280x720";

class Output : public CaptureVideoDataOutputDelegate {
 public:
  void captureOutputDidOutputSampleBuffer(CaptureSession* /*session*/, const CaptureSampleBuffer& buffer) override {
    samples.push_back(buffer);
    during();
  }
  [[nodiscard]] double seconds(std::size_t index) const {
    const auto& time = samples.at(index).presentationTime;
    return static_cast<double>(time.value) / time.timescale;
  }
  std::vector<CaptureSampleBuffer> samples;
  std::function<void()> during = [] {};
};

/// A camera that does what the test says.
class FakeCamera : public Camera {
 public:
  [[nodiscard]] std::string uniqueID() const override { return "fake"; }
  [[nodiscard]] std::string localizedName() const override { return "Fake"; }
  [[nodiscard]] bool isVirtual() const override { return false; }
  [[nodiscard]] bool isConnected() const override { return connected; }
  [[nodiscard]] std::vector<CaptureDeviceFormat> formats() const override { return {}; }
  [[nodiscard]] std::vector<PixelFormat> pixelFormats() const override { return {PixelFormat::BiPlanarVideoRange}; }
  [[nodiscard]] CaptureDevicePosition statedPosition() const override { return CaptureDevicePositionUnspecified; }
  [[nodiscard]] std::unique_ptr<CameraFeed> open(const CameraRequest& wanted,
                                                 std::weak_ptr<CameraFeedSink> to) override {
    struct Feed : CameraFeed {
      explicit Feed(int& count) : open(count) { ++open; }
      ~Feed() override { --open; }
      int& open;
    };
    requests.push_back(wanted);
    sink = std::move(to);
    return std::make_unique<Feed>(open_);
  }
  void plug(bool in) {
    connected = in;
    tellWatchers();
  }
  void deliver(int number) {
    if (const auto to = sink.lock()) {
      to->feedDelivers({PixelBuffer::create(PixelFormat::BiPlanarVideoRange, 2, 2), MediaTime::make(number, 1)});
    }
  }
  [[nodiscard]] int open() const { return open_; }

  bool connected = true;
  std::vector<CameraRequest> requests;
  std::weak_ptr<CameraFeedSink> sink;

 private:
  int open_ = 0;
};

struct CameraSessionTest : testing::Test {
  void use(const std::shared_ptr<Camera>& camera, PixelFormat format = PixelFormat::BiPlanarVideoRange) {
    ASSERT_TRUE(session->addInput(camera));
    ASSERT_TRUE(session->addVideoDataOutput(format));
    session->setSampleBufferDelegate(output, queue);
    session->setSessionPreset(k720p);
    session->startRunning();
    time->runPending();
  }
  /// The camera delivers 30 pictures a second for a while.
  void deliverFor(std::chrono::seconds duration) {
    for (int i = 0; i < duration.count() * 30; ++i) {
      fake->deliver(i);
      time->advance(33ms);
    }
  }

  LogCapture log;
  std::shared_ptr<ManualTime> time = std::make_shared<ManualTime>();
  std::shared_ptr<Queue> queue = time->makeSerialQueue("delegate");
  std::shared_ptr<Output> output = std::make_shared<Output>();
  std::shared_ptr<CaptureSession> session = CameraSession::create(*time, time);
  std::shared_ptr<FakeCamera> fake = std::make_shared<FakeCamera>();
  std::shared_ptr<VirtualCameraDevice> card = std::make_shared<VirtualCameraDevice>(testCardCamera(), time, time);
};

TEST_F(CameraSessionTest, TakesOneCameraOneOutputAndOnlyWhatTheCameraOffers) {
  EXPECT_FALSE(session->addInput(nullptr));
  EXPECT_FALSE(session->addVideoDataOutput(PixelFormat::BiPlanarVideoRange));  // Of no camera.
  EXPECT_TRUE(session->addInput(fake));
  EXPECT_FALSE(session->addInput(card));
  EXPECT_EQ(session->input(), fake);
  EXPECT_FALSE(session->addVideoDataOutput(PixelFormat::BiPlanarFullRange));
  EXPECT_TRUE(session->addVideoDataOutput(PixelFormat::BiPlanarVideoRange));
  EXPECT_FALSE(session->addVideoDataOutput(PixelFormat::BiPlanarVideoRange));
}

TEST_F(CameraSessionTest, TheTestCardMovesAtTheRateAndSizeAskedFor) {
  use(card, PixelFormat::BiPlanarFullRange);
  time->advance(2s);
  ASSERT_NEAR(static_cast<double>(output->samples.size()), 60, 1);
  EXPECT_NEAR(output->seconds(31) - output->seconds(30), 1.0 / 30, 1e-6);
  const PixelBuffer& picture = *output->samples.front().imageBuffer;
  EXPECT_EQ(picture.width(), 1280U);
  EXPECT_EQ(picture.format(), PixelFormat::BiPlanarFullRange);
  EXPECT_EQ(picture.colorMatrix(), ColorMatrix::BT709);
  const auto luma = [](const PixelBuffer& of, std::size_t x, std::size_t y) {
    return of.plane(0).base[y * of.plane(0).bytesPerRow + x];
  };
  EXPECT_EQ(luma(picture, 20, 20), 191);   // Grey at the left,
  EXPECT_EQ(luma(picture, 1260, 20), 14);  // blue at the right,
  EXPECT_EQ(luma(picture, 4, 600), 255);   // and the mark, which wanders to the middle.
  const PixelBuffer& later = *output->samples.back().imageBuffer;
  EXPECT_EQ(luma(later, 4, 600), 0);
  EXPECT_EQ(luma(later, 640, 600), 255);

  output->samples.clear();
  card->setActiveVideoFrameDurations(MediaTime::make(1, 10), MediaTime::make(1, 10));
  session->setSessionPreset("AVCaptureSessionPreset640x480");
  time->advance(2s);
  EXPECT_NEAR(static_cast<double>(output->samples.size()), 20, 1);
  EXPECT_EQ(output->samples.back().imageBuffer->width(), 640U);
  card->setActiveVideoFrameDurations({}, {});  // The camera's own again.
  output->samples.clear();
  time->advance(1s);
  EXPECT_NEAR(static_cast<double>(output->samples.size()), 30, 1);

  output->samples.clear();
  session->stopRunning();
  time->advance(1s);
  EXPECT_TRUE(output->samples.empty());
  EXPECT_EQ(log.count(""), 0U);
}

TEST_F(CameraSessionTest, PicturesOfAnApplicationAreConverted) {
  struct Red : VirtualCameraPictures {
    std::shared_ptr<PixelBuffer> pictureAt(std::chrono::nanoseconds, PixelFormat, std::size_t width,
                                           std::size_t height) override {
      auto picture = PixelBuffer::create(PixelFormat::BGRA, width, height);
      for (std::size_t i = 0; i < picture->plane(0).bytesPerRow * height; ++i) {
        picture->plane(0).base[i] = i % 4 >= 2 ? 255 : 0;
      }
      return picture;
    }
  };
  VirtualCamera camera = testCardCamera();
  camera.makePictures = [] { return std::make_unique<Red>(); };
  use(std::make_shared<VirtualCameraDevice>(camera, time, time));
  ASSERT_FALSE(output->samples.empty());
  const PixelBuffer& picture = *output->samples.front().imageBuffer;
  EXPECT_EQ(picture.format(), PixelFormat::BiPlanarVideoRange);
  EXPECT_EQ(picture.colorMatrix(), ColorMatrix::BT601);
  EXPECT_NEAR(picture.plane(0).base[0], 82, 1);
  EXPECT_NEAR(picture.plane(1).base[1], 240, 1);
  session->removeInput();
  camera.formats = {{"", 64, 48, 0, 0}};
  camera.frameRate = 1e12;  // Rates that no camera has come down to one that a machine stands.
  ASSERT_TRUE(session->addInput(std::make_shared<VirtualCameraDevice>(camera, time, time)));
  output->samples.clear();
  time->advance(20ms);
  EXPECT_NEAR(static_cast<double>(output->samples.size()), 20, 2);
  session->setVideoFrameDurations(MediaTime::make(1, 2'000'000'000), MediaTime::make(1, 2'000'000'000));
  output->samples.clear();
  time->advance(20ms);
  EXPECT_NEAR(static_cast<double>(output->samples.size()), 20, 2);
}

TEST_F(CameraSessionTest, SettingsWithinOneConfigurationTakeEffectTogether) {
  session->beginConfiguration();
  use(fake);
  EXPECT_TRUE(fake->requests.empty());
  session->setVideoFrameDurations(MediaTime::make(1, 15), MediaTime::make(1, 15));
  session->commitConfiguration();
  time->runPending();
  ASSERT_EQ(fake->requests.size(), 1U);
  EXPECT_EQ(fake->requests[0], (CameraRequest{PixelFormat::BiPlanarVideoRange, {1280, 720}, 66'666'667ns}));
  session->setSessionPreset("nonsense");
  session->setSessionPreset(k720p);
  time->runPending();
  EXPECT_EQ(fake->requests.size(), 1U);  // Nothing has changed, so the camera runs on.
  EXPECT_EQ(log.count("preset nonsense is unknown"), 1U);
}

TEST_F(CameraSessionTest, AHandfulOfLatePicturesIsKeptAndTheyComeOneAtATime) {
  use(fake);
  for (int i = 0; i < 8; ++i) {
    fake->deliver(i);
  }
  output->during = [&] {
    if (output->samples.size() == 1) {
      fake->deliver(8);
      EXPECT_EQ(output->samples.size(), 1U);  // Not within the call.
    }
  };
  time->runPending();
  std::vector<std::int64_t> numbers;
  for (const auto& sample : output->samples) {
    numbers.push_back(sample.presentationTime.value);
  }
  EXPECT_EQ(numbers, (std::vector<std::int64_t>{3, 4, 5, 6, 7, 8}));
}

TEST_F(CameraSessionTest, NoCallBeginsOnceTheDelegateOrTheSessionHasGone) {
  use(fake);
  fake->deliver(1);
  session->setSampleBufferDelegate({}, nullptr);
  time->runPending();
  EXPECT_TRUE(output->samples.empty());
  const auto other = std::make_shared<Output>();
  session->setSampleBufferDelegate(output, queue);
  fake->deliver(2);
  session->setSampleBufferDelegate(other, queue);
  time->runPending();
  EXPECT_TRUE(output->samples.empty());
  EXPECT_EQ(other->samples.size(), 1U);
  other->during = [&] { session.reset(); };  // In the midst of a call.
  fake->deliver(3);
  fake->deliver(4);
  time->runPending();
  EXPECT_EQ(other->samples.size(), 2U);
  EXPECT_EQ(fake->open(), 0);
  fake->plug(false);
  time->advance(1min);
  EXPECT_EQ(log.count(""), 0U);
}

TEST_F(CameraSessionTest, PeopleAreToldOnceOfEachTroubleAndOnceOfItsEnd) {
  use(fake);
  time->advance(1min);
  EXPECT_EQ(log.count(LogLevel::Warning, "the camera \"Fake\" delivers no pictures"), 1U);
  EXPECT_EQ(fake->requests.size(), 5U);  // Opened anew from time to time, lest it was asked at a bad moment.
  EXPECT_EQ(fake->open(), 1);
  deliverFor(10s);
  EXPECT_EQ(log.count("\"Fake\" delivers pictures again"), 1U);
  time->advance(10s);
  EXPECT_EQ(log.count("delivers no pictures"), 2U);
  deliverFor(1s);
  EXPECT_EQ(log.count("delivers pictures again"), 2U);

  fake->plug(false);
  time->advance(1min);
  EXPECT_EQ(log.count(LogLevel::Warning, "\"Fake\" has gone"), 1U);
  EXPECT_EQ(fake->open(), 0);
  fake->plug(true);
  time->advance(10s);
  EXPECT_EQ(fake->open(), 1);
  EXPECT_EQ(log.count("delivers no pictures"), 3U);
  deliverFor(1s);
  EXPECT_EQ(log.count("delivers pictures again"), 3U);

  // One that cannot be used is tried again and again, and people hear of it once.
  const auto before = fake->requests.size();
  for (int i = 0; i < 5; ++i) {
    fake->sink.lock()->feedFails("permission is refused");
    time->advance(CameraSession::kRetryTime);
  }
  EXPECT_EQ(log.count(LogLevel::Warning, "\"Fake\" cannot be used: permission is refused; trying again"), 1U);
  EXPECT_EQ(fake->requests.size(), before + 5);
  time->advance(1min);
  EXPECT_EQ(log.count("delivers no pictures"), 3U);
  deliverFor(1s);
  EXPECT_EQ(log.count("delivers pictures again"), 4U);
  session->stopRunning();
  time->advance(1min);
  EXPECT_EQ(fake->open(), 0);
  EXPECT_EQ(log.count(LogLevel::Warning, ""), 5U);
}

TEST_F(CameraSessionTest, WhoReadsOfATroubleMayEndTheSession) {
  const LogCapture ending([&] { session.reset(); });
  use(fake);
  time->advance(10s);
  EXPECT_EQ(session, nullptr);
  EXPECT_EQ(fake->open(), 0);
}

}  // namespace
}  // namespace zellive
