#include <cmath>

#include "tests/gpu/Golden.h"
#include "tests/support/PictureSource.h"
#include "zellive/capture/ZelLiveGPUImageEmptyFilter.h"
#include "zellive/gpu/ColorConversion.h"
#include "zellive/gpu/GPUImageAlphaBlendFilter.h"
#include "zellive/gpu/GPUImageCropFilter.h"
#include "zellive/platform/Image.h"

namespace zellive::test {
namespace {

/// One step: sampling is exact at pixel centres, and rounding is the driver's.
constexpr double kOneStep = 1.01;
/// Filtering between pixels has eight bits of weight, and neighbours differ by up to 255.
constexpr double kFiltered = 2.5;

/// The output of `filter` for one picture.
std::shared_ptr<PixelBuffer> rendered(PictureSource& source, GPUImageFilter& filter, const PixelBuffer& picture) {
  std::shared_ptr<PixelBuffer> result;
  filter.setFrameProcessingCompletionBlock(
      [&](GPUImageOutput& output, MediaTime) { result = output.framebufferForOutput()->pixelBuffer(); });
  source.send(picture);
  return result;
}

class EveryTurn : public testing::TestWithParam<int> {
 protected:
  /// What `filter` makes of the picture must be `region` of it, turned.
  void expectTurned(GPUImageFilter& filter, const PixelBuffer& picture, const Rect& region, double tolerance) {
    const Turn turn = kTurns[GetParam()];
    const auto source = std::make_shared<PictureSource>();
    source->addTarget(std::static_pointer_cast<GPUImageFilter>(filter.shared_from_this()));
    source->turn = static_cast<GPUImageInputTurn>(GetParam());
    const auto width = static_cast<double>(turn.swaps ? picture.height() : picture.width()) * region.width;
    const auto height = static_cast<double>(turn.swaps ? picture.width() : picture.height()) * region.height;
    EXPECT_TRUE(matches(rendered(*source, filter, picture), static_cast<std::size_t>(width),
                        static_cast<std::size_t>(height), tolerance, [&](std::size_t x, std::size_t y) {
                          const auto at = turn.source(x, y, {width, height}, region);
                          return sampleLinear(picture.plane(0), 4, at.x, at.y);
                        }));
  }
};
INSTANTIATE_TEST_SUITE_P(All, EveryTurn, testing::Range(0, 8));

TEST_P(EveryTurn, OneInputFilterTurnsItsInput) {
  expectTurned(*GPUImageFilter::create(), *samplePicture(PixelFormat::BGRA, 37, 22), {0, 0, 1, 1}, kOneStep);
}

TEST_P(EveryTurn, CropCutsOutItsRegionAndRepeatsTheBorderBeyond) {
  const auto picture = samplePicture(PixelFormat::BGRA, 72, 128);
  for (const Rect region : {Rect{0.125, 0.25, 0.5, 0.375}, Rect{-0.5, 0.5, 2, 1}}) {
    expectTurned(*GPUImageCropFilter::create(region), *picture, region, kFiltered);
  }
}

TEST(Golden, AlphaBlendAtSeveralMixes) {
  const auto camera = samplePicture(PixelFormat::BGRA, 24, 10, 1);
  const auto mark = samplePicture(PixelFormat::BGRA, 24, 10, 2);
  const auto filter = GPUImageAlphaBlendFilter::create();
  EXPECT_EQ(filter->mix(), 0.5);
  const auto source = std::make_shared<PictureSource>();
  const auto still = std::make_shared<PictureSource>();
  source->addTarget(filter);
  still->addTarget(filter);
  for (const double mix : {0.0, 0.25, 0.4, 0.5, 1.0}) {
    filter->setMix(mix);
    still->send(*mark, MediaTime::indefinite());
    EXPECT_TRUE(matches(rendered(*source, *filter, *camera), 24, 10, 2,
                        [&](std::size_t x, std::size_t y) {
                          const Color below = colorAt(*camera, x, y);
                          const Color above = colorAt(*mark, x, y);
                          const auto blend = [&](std::size_t c) {
                            return std::lerp(below[c], above[c], above[3] / 255 * mix);
                          };
                          return Color{blend(0), blend(1), blend(2), below[3]};
                        }))
        << "mix " << mix;
  }
}

/// A pass that hands its input on must show what a pass that draws would.
TEST(Golden, CopiesAreExactDrawnOrNot) {
  for (const auto& [width, height] : {std::pair{1, 1}, {3, 5}, {17, 9}, {640, 359}, {1280, 720}}) {
    const auto picture =
        samplePicture(PixelFormat::BGRA, static_cast<std::size_t>(width), static_cast<std::size_t>(height));
    for (const bool drawn : {false, true}) {
      const auto source = std::make_shared<PictureSource>();
      const auto filter = GPUImageFilter::create();
      const auto other = GPUImageFilter::create();
      source->addTarget(filter);
      if (drawn) {
        // Its input is not its own.
        source->addTarget(other);
      }
      EXPECT_TRUE(matches(rendered(*source, *filter, *picture), picture->width(), picture->height(), 0,
                          [&](std::size_t x, std::size_t y) { return colorAt(*picture, x, y); }))
          << (drawn ? "drawn" : "handed on");
    }
  }
}

}  // namespace
}  // namespace zellive::test
