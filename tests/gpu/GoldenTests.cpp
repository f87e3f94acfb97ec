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

struct Place {
  double s, t;
};

/// For each turn, where in the input the point (u, v) of the output comes from; r is the region that is cut out.
using Turn = Place (*)(double u, double v, const Rect& r);
constexpr Turn kTurns[] = {
    [](double u, double v, const Rect& r) {
      return Place{r.x + r.width * u, r.y + r.height * v};
    },
    [](double u, double v, const Rect& r) {
      return Place{r.y + r.height * (1 - v), 1 - r.x - r.width * (1 - u)};
    },
    [](double u, double v, const Rect& r) {
      return Place{r.y + r.height * v, 1 - r.x - r.width * u};
    },
    [](double u, double v, const Rect& r) {
      return Place{r.x + r.width * u, r.y + r.height * (1 - v)};
    },
    [](double u, double v, const Rect& r) {
      return Place{r.x + r.width * (1 - u), r.y + r.height * v};
    },
    [](double u, double v, const Rect& r) {
      return Place{r.y + r.height * v, 1 - r.x - r.width * (1 - u)};
    },
    [](double u, double v, const Rect& r) {
      return Place{r.y + r.height * (1 - v), 1 - r.x - r.width * u};
    },
    [](double u, double v, const Rect& r) {
      return Place{r.x + r.width * (1 - u), r.y + r.height * (1 - v)};
    },
};
constexpr bool kSwaps[] = {false, true, true, false, false, true, true, false};

class EveryTurn : public testing::TestWithParam<int> {
 protected:
  /// What a filter that cuts out `region` must make of the picture in a framebuffer of width × height.
  auto turned(const PixelBuffer& picture, const Rect& region, std::size_t width, std::size_t height) const {
    return [&picture, region, width, height, turn = kTurns[GetParam()]](std::size_t x, std::size_t y) {
      const auto place = turn((static_cast<double>(x) + 0.5) / static_cast<double>(width),
                              (static_cast<double>(y) + 0.5) / static_cast<double>(height), region);
      return sampleLinear(picture.plane(0), 4, place.s, place.t);
    };
  }
  const std::shared_ptr<PictureSource> source_ = std::make_shared<PictureSource>();
};
INSTANTIATE_TEST_SUITE_P(All, EveryTurn, testing::Range(0, 8));

TEST_P(EveryTurn, OneInputFilterTurnsItsInput) {
  const auto picture = samplePicture(PixelFormat::BGRA, 37, 22);
  const auto filter = GPUImageFilter::create();
  source_->addTarget(filter);
  source_->turn = static_cast<GPUImageInputTurn>(GetParam());
  const std::size_t width = kSwaps[GetParam()] ? 22 : 37;
  const std::size_t height = kSwaps[GetParam()] ? 37 : 22;
  const auto output = rendered(*source_, *filter, *picture);
  EXPECT_TRUE(matches(output, width, height, kOneStep, turned(*picture, {0, 0, 1, 1}, width, height)));
}

TEST_P(EveryTurn, CropCutsOutItsRegion) {
  const auto picture = samplePicture(PixelFormat::BGRA, 72, 128);
  const Rect region{0.125, 0.25, 0.5, 0.375};
  const auto filter = GPUImageCropFilter::create(region);
  source_->addTarget(filter);
  source_->turn = static_cast<GPUImageInputTurn>(GetParam());
  const std::size_t width = kSwaps[GetParam()] ? 64 : 36;
  const std::size_t height = kSwaps[GetParam()] ? 27 : 48;
  const auto output = rendered(*source_, *filter, *picture);
  EXPECT_TRUE(matches(output, width, height, kFiltered, turned(*picture, region, width, height)));
}

TEST(Golden, CropBeyondTheInputRepeatsItsBorder) {
  const auto picture = samplePicture(PixelFormat::BGRA, 16, 16);
  const auto source = std::make_shared<PictureSource>();
  const auto filter = GPUImageCropFilter::create({-0.5, 0.5, 2, 1});
  source->addTarget(filter);
  EXPECT_TRUE(matches(rendered(*source, *filter, *picture), 32, 16, kFiltered, [&](std::size_t x, std::size_t y) {
    return sampleLinear(picture->plane(0), 4, -0.5 + 2 * (static_cast<double>(x) + 0.5) / 32,
                        0.5 + (static_cast<double>(y) + 0.5) / 16);
  }));
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
                          const auto* below = camera->plane(0).base + y * camera->plane(0).bytesPerRow + x * 4;
                          const auto* above = mark->plane(0).base + y * mark->plane(0).bytesPerRow + x * 4;
                          const auto blend = [&](int c) {
                            return std::lerp(below[c], above[c], above[3] / 255.0 * mix);
                          };
                          return Color{blend(0), blend(1), blend(2), static_cast<double>(below[3])};
                        }))
        << "mix " << mix;
  }
}

struct PictureShape {
  PixelFormat format;
  std::size_t width, height;
};
void PrintTo(const PictureShape& shape, std::ostream* stream) { *stream << shape.width << " x " << shape.height; }

class EveryShape : public testing::TestWithParam<PictureShape> {};
INSTANTIATE_TEST_SUITE_P(Yuv, EveryShape,
                         testing::Values(PictureShape{PixelFormat::BiPlanarFullRange, 64, 36},
                                         PictureShape{PixelFormat::BiPlanarFullRange, 62, 36},
                                         PictureShape{PixelFormat::BiPlanarFullRange, 63, 35},
                                         PictureShape{PixelFormat::BiPlanarVideoRange, 34, 18}));

TEST_P(EveryShape, YuvBecomesRgb) {
  const auto& [format, width, height] = GetParam();
  const auto picture = samplePicture(format, width, height);
  const auto source = std::make_shared<PictureSource>();
  const auto filter = ZelLiveGPUImageEmptyFilter::create();
  source->addTarget(filter);
  // BT.601 as published, not as the shader has it.
  const bool full = format == PixelFormat::BiPlanarFullRange;
  const double scale = full ? 1 : 255.0 / 219;
  const double chromaScale = full ? 1 : 255.0 / 224;
  // The chroma texture holds whole pairs of pixels only.
  auto chroma = picture->plane(1);
  chroma.width = width / 2;
  chroma.height = height / 2;
  EXPECT_TRUE(matches(rendered(*source, *filter, *picture), width, height, 4, [&](std::size_t x, std::size_t y) {
    const double s = (static_cast<double>(x) + 0.5) / static_cast<double>(width);
    const double t = (static_cast<double>(y) + 0.5) / static_cast<double>(height);
    const double luma = (sampleLinear(picture->plane(0), 1, s, t)[0] - (full ? 0 : 16)) * scale;
    const auto pair = sampleLinear(chroma, 2, s, t);
    const double cb = (pair[0] - 127.5) * chromaScale;
    const double cr = (pair[1] - 127.5) * chromaScale;
    return Color{luma + 1.772 * cb, luma - 0.344136 * cb - 0.714136 * cr, luma + 1.402 * cr, 255};
  }));
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
                          [&](std::size_t x, std::size_t y) {
                            const auto* at = picture->plane(0).base + y * picture->plane(0).bytesPerRow + x * 4;
                            return Color{double(at[0]), double(at[1]), double(at[2]), double(at[3])};
                          }))
          << (drawn ? "drawn" : "handed on");
    }
  }
}

}  // namespace
}  // namespace zellive::test
