// The two ends of the graph that show and are views: GPUImageView against plain C++, GPUImageUIElement through a
// filter.
#include <cairo.h>

#include <algorithm>
#include <cmath>
#include <tuple>

#include "tests/gpu/GpuTest.h"
#include "zellive/gpu/GPUImageAlphaBlendFilter.h"
#include "zellive/gpu/GPUImageUIElement.h"
#include "zellive/gpu/GPUImageView.h"

namespace zellive::test {
namespace {

/// Filtering between pixels has eight bits of weight, and neighbours differ by up to 255.
constexpr double kFiltered = 2.5;

/// The turned picture at u, v from the upper left, 0…1. That the corners are right is seen with the filters.
Color turnedSample(const PixelBuffer& picture, int turn, double u, double v) {
  const auto& corners = textureCoordinatesForRotation(static_cast<GPUImageInputTurn>(turn));
  const auto along = [&](std::size_t axis) {
    return corners[axis] + u * (corners[axis + 2] - corners[axis]) + v * (corners[axis + 4] - corners[axis]);
  };
  return sampleLinear(picture.plane(0), 4, along(0), along(1));
}

class EveryFillModeAndTurn : public testing::TestWithParam<std::tuple<int, int>> {};
INSTANTIATE_TEST_SUITE_P(All, EveryFillModeAndTurn, testing::Combine(testing::Range(0, 3), testing::Range(0, 8)));

TEST_P(EveryFillModeAndTurn, ShowsTheFrameAtTheSizeThatTheViewHas) {
  const auto [mode, turn] = GetParam();
  const auto picture = samplePicture(PixelFormat::BGRA, 40, 22);
  const auto source = std::make_shared<PictureSource>();
  source->turn = static_cast<GPUImageInputTurn>(turn);
  const auto view = GPUImageView::create({5, 5, 64, 48});
  view->setBackgroundColor({1, 0.5, 0, 0.8});
  view->setFillMode(static_cast<GPUImageFillMode>(mode));
  source->addTarget(view);
  source->send(*picture);
  const bool swaps = turnSwapsSides(source->turn);
  for (const Size size : {Size{64, 48}, Size{31, 57}, Size{40, 22}}) {
    view->setFrame({5, 5, size.width, size.height});
    const double across = size.width / (swaps ? 22 : 40);
    const double down = size.height / (swaps ? 40 : 22);
    const double scale = mode == 1 ? std::min(across, down) : std::max(across, down);
    EXPECT_TRUE(matches(view->picture(), static_cast<std::size_t>(size.width), static_cast<std::size_t>(size.height),
                        kFiltered, [&](std::size_t x, std::size_t y) {
                          const auto along = [&](std::size_t at, double length, double factor) {
                            const double place = (static_cast<double>(at) + 0.5) / length - 0.5;
                            return (mode == 0 ? place : place * factor / scale) + 0.5;
                          };
                          const double u = along(x, size.width, across);
                          const double v = along(y, size.height, down);
                          const bool inside = u >= 0 && u <= 1 && v >= 0 && v <= 1;
                          return inside ? turnedSample(*picture, turn, u, v) : Color{0, 102, 204, 204};
                        }));
  }
}

/// A half-transparent red square drawn by the application, and how often.
class Square : public View {
 public:
  using View::View;
  void draw(cairo_t* context, Size size) override {
    ++draws;
    cairo_set_source_rgba(context, 1, 0, 0, 0.5);
    cairo_rectangle(context, 2, 2, size.width - 4, size.height - 4);
    cairo_fill(context);
  }
  int draws = 0;
};

TEST_F(GpuTest, UIElementIsAStillThatKeepsItsTransparency) {
  const auto content = std::make_shared<View>(Rect{40, 40, 32.9, 18});
  const auto square = std::make_shared<Square>(Rect{4, 4, 10, 10});
  content->addSubview(square);
  const auto element = GPUImageUIElement::create(content);
  element->forceProcessingAtSize({8, 8});
  EXPECT_EQ(element->layerSizeInPixels(), (Size{32, 18}));
  const auto blend = GPUImageAlphaBlendFilter::create();
  blend->setMix(1);
  blend->disableSecondFrameCheck();
  connect(blend);
  element->addTarget(blend);
  std::shared_ptr<PixelBuffer> result;
  blend->setFrameProcessingCompletionBlock(
      [&](GPUImageOutput& output, MediaTime) { result = output.framebufferForOutput()->pixelBuffer(); });
  const auto expectBlended = [&](std::size_t left) {
    send();
    EXPECT_TRUE(matches(result, 32, 18, 2, [&](std::size_t x, std::size_t y) {
      Color color = colorAt(*picture_, x, y);
      const bool covered = x >= left + 2 && x < left + 8 && y >= 6 && y < 12;
      for (std::size_t c = 0; covered && c < 3; ++c) {
        color[c] = color[c] * 0.5 + (c == 2 ? 127.5 : 0);
      }
      return color;
    }));
  };
  element->update();
  expectBlended(4);
  element->update();
  EXPECT_EQ(square->draws, 1) << "nothing has changed";
  expectBlended(4);
  square->setFrame({9, 4, 10, 10});
  element->update();
  expectBlended(9);
  EXPECT_EQ(square->draws, 2);

  const auto recorder = std::make_shared<Recorder>();
  element->addTarget(recorder);
  EXPECT_TRUE(recorder->last) << "one that comes late gets the picture at once";
  const auto before = counted();
  element->updateWithTimestamp(MediaTime::make(7, 30));
  onQueue([] {});
  EXPECT_EQ(recorder->times, std::vector<std::int64_t>{7});
  EXPECT_EQ(recorder->size, (Size{32, 18}));
  EXPECT_EQ((counted() - before).textureStorages, 0U);
  content->setFrame({});
  element->update();
  onQueue([] {});
  EXPECT_EQ(recorder->times.size(), 1U) << "a view without a size is not sent";
}

}  // namespace
}  // namespace zellive::test
