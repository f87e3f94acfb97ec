#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/gpu/Golden.h"
#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/capture/ZelLivePixelBufferFitSizeFilter.h"
#include "zellive/gpu/ColorConversion.h"

namespace zellive::test {
namespace {

using Filter = ZelLivePixelBufferFitSizeFilter;
using enum PixelFormat;

/// The machine's graphics, unless a test takes them away.
struct FickleGraphics : GraphicsService {
  std::shared_ptr<GraphicsContext> makeContext(GraphicsAPI api, const std::shared_ptr<GraphicsContext>&) override {
    ++contexts;
    return gone ? nullptr : defaultPlatform()->graphics->makeContext(api);
  }
  bool gone = false;
  int contexts = 0;
};

struct Receiver : ZelLivePixelBufferFitSizeDelegate {
  void filterPixelBuffer(Filter& filter, std::shared_ptr<PixelBuffer> pixelBuffer, double timeStamp) override {
    pictures.push_back(std::move(pixelBuffer));
    stamps.push_back(timeStamp);
    oldest.push_back(filter.oldestPicture().value_or(0));
  }
  void filterDidFinishPicture(Filter&) override { ++finished; }
  std::vector<std::shared_ptr<PixelBuffer>> pictures;
  std::vector<double> stamps;
  std::vector<std::uint64_t> oldest;
  int finished = 0;
};

/// A renderer on queues that the test drives.
class FitSizeTest : public ::testing::Test {
 protected:
  FitSizeTest() { manual.graphics = graphics; }
  ~FitSizeTest() override {
    filter.reset();
    manual.runPending();
  }
  void SetUp() override {
    if (!defaultPlatform()->graphics->makeContext(GraphicsAPI::OpenGLES3)) {
      GTEST_SKIP() << "this machine has no OpenGL ES 3 through EGL; Mesa's software renderer is enough";
    }
  }
  void make(Size output) {
    filter = Filter::create(output, manual.platform());
    filter->setDelegate(receiver);
  }
  /// Renders at once, and tells what came of it.
  std::shared_ptr<PixelBuffer> render(const std::shared_ptr<PixelBuffer>& picture, double timeStamp = 0) {
    const auto before = receiver->pictures.size();
    filter->renderPixelBuffer(picture, timeStamp);
    manual.runPending();
    return receiver->pictures.size() > before ? receiver->pictures.back() : nullptr;
  }

  ManualPlatform manual;
  std::shared_ptr<FickleGraphics> graphics = std::make_shared<FickleGraphics>();
  std::shared_ptr<Receiver> receiver = std::make_shared<Receiver>();
  std::shared_ptr<Filter> filter;
};

/// What the renderer draws, in plain arithmetic.
auto fitted(const PixelBuffer& picture, Size output) {
  const double shape = static_cast<double>(picture.width()) / static_cast<double>(picture.height());
  const double across = std::min(1., output.height * shape / output.width);
  const double down = std::min(1., output.width / shape / output.height);
  return [&picture, output, across, down](std::size_t x, std::size_t y) {
    const double s = ((2 * static_cast<double>(x) + 1) / output.width - 1) / across / 2 + 0.5;
    const double t = ((2 * static_cast<double>(y) + 1) / output.height - 1) / down / 2 + 0.5;
    if (s < 0 || s > 1 || t < 0 || t > 1) {
      return Color{};
    }
    if (picture.format() == BGRA) {
      return sampleLinear(picture.plane(0), 4, s, t);
    }
    const double luma = sampleLinear(picture.plane(0), 1, s, t)[0];
    const auto chroma = sampleLinear(picture.plane(1), 2, s, t);
    const auto line = [&, &m = kColorConversion601FullRange](std::size_t i) {
      return m[i] * luma + m[3 + i] * (chroma[0] - 127.5) + m[6 + i] * (chroma[1] - 127.5);
    };
    return Color{line(2), line(1), line(0), 255};
  };
}

TEST_F(FitSizeTest, ShapesEqualToTwoDecimalsPassUnchangedAndOthersAreFitted) {
  const struct {
    std::size_t outputWidth, outputHeight, width, height;
    bool passes = false;
  } cases[] = {{1920, 1080, 1280, 720, true},
               {1280, 720, 854, 480, true},
               {72, 128, 72, 128, true},
               {128, 72, 126, 72},
               {72, 128, 108, 108},
               {72, 128, 128, 72},
               {128, 72, 72, 128},
               {65, 63, 33, 17},
               {64, 64, 7, 5},
               {31, 45, 129, 3},
               {40, 30, 1, 1},
               {1, 1, 3, 2}};
  for (const auto& [outputWidth, outputHeight, width, height, passes] : cases) {
    // Filtering between pixels has eight bits of weight, and neighbours differ by up to 255; the matrix adds to that.
    for (const auto& [format, tolerance] : {std::pair{BGRA, 2.5}, {BiPlanarFullRange, 6.}}) {
      SCOPED_TRACE(testing::Message() << width << " x " << height << " in " << outputWidth << " x " << outputHeight);
      const Size output{static_cast<double>(outputWidth), static_cast<double>(outputHeight)};
      make(output);
      const auto picture = samplePicture(format, width, height);
      const auto result = render(picture, 20);
      EXPECT_EQ(receiver->stamps.back(), 20);
      EXPECT_EQ(filter->context() == nullptr, passes) << "nothing is made before it is needed";
      if (passes) {
        EXPECT_EQ(result, picture);
      } else {
        EXPECT_TRUE(matches(result, outputWidth, outputHeight, tolerance, fitted(*picture, output)));
      }
    }
  }
}

TEST_F(FitSizeTest, AKeptPictureIsNeverDrawnOverAndARunningRendererAllocatesNoPicture) {
  make({64, 64});
  const auto grey = [](std::size_t i) { return static_cast<std::uint8_t>(5 * i + 20); };
  auto& kept = receiver->pictures;
  std::set<const std::uint8_t*> memory;
  for (std::size_t i = 0; i < 40; ++i) {
    const auto picture = PixelBuffer::create(i % 3 > 0 ? BGRA : BiPlanarFullRange, 64, i % 2 > 0 ? 32 : 48);
    for (std::size_t index = 0; index < picture->planeCount(); ++index) {
      const auto& plane = picture->plane(index);
      std::fill_n(plane.base, plane.bytesPerRow * plane.height, index == 0 ? grey(i) : std::uint8_t{128});
    }
    const auto output = render(picture);
    ASSERT_NE(output, nullptr);
    memory.insert(output->plane(0).base);
    kept.erase(kept.begin(), kept.end() - std::min<std::ptrdiff_t>(3, std::ssize(kept)));
    for (std::size_t at = 0; at < kept.size(); ++at) {
      const auto drawn = i + 1 + at - kept.size();
      const auto& plane = kept[at]->plane(0);
      EXPECT_NEAR(plane.base[32 * plane.bytesPerRow], grey(drawn), 2) << i;
      EXPECT_NEAR(plane.base[10 * plane.bytesPerRow], drawn % 2 > 0 ? 0 : grey(drawn), 2) << "a bar that is not black";
    }
  }
  EXPECT_LE(memory.size(), 4U) << "three kept, and one to draw";
  EXPECT_EQ(graphics->contexts, 1);
  const auto other = samplePicture(BiPlanarVideoRange, 8, 4);
  EXPECT_EQ(render(other, 7), kept[2]) << "a format that is not drawn shows the picture before";
  make({8, 8});
  EXPECT_TRUE(matches(render(other), 8, 8, 0, [](auto, auto) { return Color{}; })) << "or black";
}

TEST_F(FitSizeTest, WhatPassesWaitsBehindWhatIsDrawnAndMoreThanFourDoNotWait) {
  const LogCapture log;
  make({64, 64});
  const auto wide = PixelBuffer::create(BGRA, 64, 32);
  const auto square = PixelBuffer::create(Planar, 32, 32);
  filter->renderPixelBuffer(square, 10);
  EXPECT_EQ(receiver->stamps, std::vector{10.}) << "at once";
  for (const double stamp : {22, 21, 23, 24, 25, 26}) {
    filter->renderPixelBuffer(stamp == 23 ? square : wide, stamp);
  }
  EXPECT_EQ(filter->droppedPictures(), 2U);
  manual.runPending();
  EXPECT_EQ(receiver->stamps, (std::vector{10., 22., 21., 23., 24.}));
  EXPECT_EQ(receiver->pictures[3], square);
  EXPECT_EQ(receiver->oldest, (std::vector<std::uint64_t>{0, 21, 21, 23, 24})) << "one counts until its call is over";
  EXPECT_EQ(filter->oldestPicture(), std::nullopt);
  EXPECT_EQ(receiver->finished, 4);
  EXPECT_EQ(log.count(LogLevel::Warning, "the fit-size renderer is too slow, pictures dropped: 1"), 1U);
  filter->renderPixelBuffer(square, 30);
  EXPECT_EQ(receiver->stamps.back(), 30) << "at once again";
}

TEST_F(FitSizeTest, WhatCannotBeDrawnIsDroppedWithItsReason) {
  const struct {
    bool gone;
    Size output;
    std::vector<std::string> messages;
  } cases[] = {
      {true, {8, 8}, {"4 x 2 do not have the shape of the output 8 x 8", "ES: dropped 101"}},
      {false, {0, 8}, {"Live: FBO size: 0.000000 8.0", "Live: Error at CVPixelBufferCreate renderTarget -2"}},
      {false, {8, 1e300}, {"Live: Error at CVPixelBufferCreate renderTarget -2"}},
  };
  for (const auto& [gone, output, messages] : cases) {
    SCOPED_TRACE(messages.back());
    graphics->gone = gone;
    graphics->contexts = 0;
    receiver->finished = 0;
    make(output);
    const LogCapture log;
    for (int i = 0; i < 101; ++i) {
      EXPECT_EQ(render(PixelBuffer::create(i == 0 ? BGRA : BiPlanarFullRange, 4, 2)), nullptr);
    }
    for (const auto& message : messages) {
      EXPECT_GE(log.count(message), 1U) << message;
    }
    EXPECT_EQ(graphics->contexts, gone ? 2 : 1);
    EXPECT_EQ(filter->oldestPicture(), std::nullopt) << "a picture that was dropped holds nothing up";
    EXPECT_EQ(receiver->finished, 101);
    const auto square = PixelBuffer::create(Planar, 8, 8);
    EXPECT_EQ(render(square), filter->passes(8, 8) ? square : nullptr);
  }
  const LogCapture log;
  std::array<std::uint8_t, 64> memory{};
  EXPECT_EQ(render(nullptr), nullptr);
  EXPECT_EQ(render(PixelBuffer::wrap(BGRA, 4, 2, {memory.data()}, {16})), nullptr);
  EXPECT_EQ(log.count(LogLevel::Error, "Live: pixelbuffer don't contain iosurface"), 1U);
}

TEST_F(FitSizeTest, ARendererMayEndWithPicturesInFlight) {
  /// May let go of its renderer in the middle of a call.
  struct Owner : Receiver {
    void filterPixelBuffer(Filter&, std::shared_ptr<PixelBuffer>, double timeStamp) override {
      timeStamp == 2 ? renderer.reset() : void();
      called.set();
    }
    std::shared_ptr<Filter> renderer;
    Event called;
  };
  for (int round = 0; round < 24; ++round) {
    const bool endsInCall = round % 4 == 0;
    const auto owner = std::make_shared<Owner>();
    const std::weak_ptr<Filter> weak = owner->renderer = Filter::create({64, 64});
    owner->renderer->setDelegate(owner);
    for (const double stamp : {endsInCall ? 2 : 1, 3, 4}) {
      if (const auto renderer = weak.lock()) {
        renderer->renderPixelBuffer(samplePicture(BGRA, 64, 32), stamp);
      }
    }
    EXPECT_TRUE(round % 4 > 1 || owner->called.wait());
    endsInCall ? void() : owner->renderer.reset();
  }
}

}  // namespace
}  // namespace zellive::test
