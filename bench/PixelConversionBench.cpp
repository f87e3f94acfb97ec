#include <benchmark/benchmark.h>

#include <array>
#include <memory>

#include "bench/SampleFrames.h"
#include "zellive/capture/ZelLiveTool.h"
#include "zellive/platform/linux/PictureConversion.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace zellive::bench {
namespace {

struct Shape {
  int width;
  int height;
};
constexpr std::array<Shape, 2> kShapes = {Shape{1280, 720}, Shape{1920, 1080}};

Shape shapeOf(const benchmark::State& state) { return kShapes[static_cast<std::size_t>(state.range(0))]; }

std::shared_ptr<PixelBuffer> picture(PixelFormat format, Shape shape) {
  auto made =
      PixelBuffer::create(format, static_cast<std::size_t>(shape.width), static_cast<std::size_t>(shape.height));
  for (std::size_t index = 0; index < made->planeCount(); ++index) {
    const auto& plane = made->plane(index);
    const auto bytes = noise(plane.bytesPerRow * plane.height);
    std::copy(bytes.begin(), bytes.end(), plane.base);
  }
  return made;
}

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("1080p")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
}

PictureConverter::Target target(Shape shape, AVPixelFormat layout, bool fullRange = false) {
  return {shape.width, shape.height, shape.width, shape.height, layout, {fullRange, ColorMatrix::Unspecified}};
}

/// To the layout that libx264 takes for any picture.
void toI420(benchmark::State& state, PixelFormat from) {
  const Shape shape = shapeOf(state);
  PictureConverter converter(target(shape, AV_PIX_FMT_YUV420P));
  const auto source = picture(from, shape);
  for ([[maybe_unused]] auto step : state) {
    benchmark::DoNotOptimize(converter.convert(source));
  }
}
BENCHMARK_CAPTURE(toI420, BGRA, PixelFormat::BGRA)->Apply(sizes);
BENCHMARK_CAPTURE(toI420, NV12, PixelFormat::BiPlanarVideoRange)->Apply(sizes);
BENCHMARK_CAPTURE(toI420, NV12FullRange, PixelFormat::BiPlanarFullRange)->Apply(sizes);
BENCHMARK_CAPTURE(toI420, I420InPlace, PixelFormat::Planar)->Apply(sizes);

/// The same by swscale with its usual setting, bicubic, which has nothing to scale here.
void toI420BySwscale(benchmark::State& state, PixelFormat from, AVPixelFormat layout) {
  const Shape shape = shapeOf(state);
  const auto source = picture(from, shape);
  const auto result = picture(PixelFormat::Planar, shape);
  const std::unique_ptr<SwsContext, void (*)(SwsContext*)> scaler(
      sws_getContext(shape.width, shape.height, layout, shape.width, shape.height, AV_PIX_FMT_YUV420P, SWS_BICUBIC,
                     nullptr, nullptr, nullptr),
      sws_freeContext);
  std::array<const std::uint8_t*, 4> bases{};
  std::array<int, 4> strides{};
  std::array<std::uint8_t*, 4> resultBases{};
  std::array<int, 4> resultStrides{};
  for (std::size_t index = 0; index < 3; ++index) {
    bases[index] = source->plane(index).base;
    strides[index] = static_cast<int>(source->plane(index).bytesPerRow);
    resultBases[index] = result->plane(index).base;
    resultStrides[index] = static_cast<int>(result->plane(index).bytesPerRow);
  }
  for ([[maybe_unused]] auto step : state) {
    benchmark::DoNotOptimize(sws_scale(scaler.get(), bases.data(), strides.data(), 0, shape.height, resultBases.data(),
                                       resultStrides.data()));
  }
}
BENCHMARK_CAPTURE(toI420BySwscale, BGRA, PixelFormat::BGRA, AV_PIX_FMT_BGRA)->Apply(sizes);
BENCHMARK_CAPTURE(toI420BySwscale, NV12, PixelFormat::BiPlanarVideoRange, AV_PIX_FMT_NV12)->Apply(sizes);

/// What a pushed picture costs before the encoder sees it.
void copyPushed(benchmark::State& state, PixelFormat format) {
  ZelLiveTool tool;
  const auto source = picture(format, shapeOf(state));
  for ([[maybe_unused]] auto step : state) {
    benchmark::DoNotOptimize(tool.copyPixelBuffer(source));
  }
}
BENCHMARK_CAPTURE(copyPushed, BGRA, PixelFormat::BGRA)->Apply(sizes);
BENCHMARK_CAPTURE(copyPushed, NV12, PixelFormat::BiPlanarVideoRange)->Apply(sizes);

}  // namespace
}  // namespace zellive::bench
