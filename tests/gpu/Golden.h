#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "zellive/platform/Geometry.h"
#include "zellive/platform/PixelBuffer.h"

namespace zellive::test {

/// Blue, green, red, alpha; 0…255.
using Color = std::array<double, 4>;

/// A picture of that format in which no row, column or channel is like another; the same for the same arguments.
[[nodiscard]] std::shared_ptr<PixelBuffer> samplePicture(PixelFormat format, std::size_t width, std::size_t height,
                                                         unsigned seed = 1);

[[nodiscard]] inline Color colorAt(const PixelBuffer& bgra, std::size_t x, std::size_t y) {
  const auto* const at = bgra.plane(0).base + y * bgra.plane(0).bytesPerRow + x * 4;
  return {static_cast<double>(at[0]), static_cast<double>(at[1]), static_cast<double>(at[2]),
          static_cast<double>(at[3])};
}

/// Plain C++ for what a texture unit does: linear between pixel centres, clamped to the edge. `s` and `t`: 0…1.
/// `components`: bytes of a pixel of the plane; those beyond are 0.
[[nodiscard]] Color sampleLinear(const PixelBuffer::Plane& plane, std::size_t components, double s, double t);

/// How a turn fetches its output's pixels: with rows and columns exchanged, and from the far side.
struct Turn {
  bool swaps, mirrorsX, mirrorsY;
  /// Where pixel (x, y) of an output of that size lies in `region` of the input; all of it is 0…1.
  [[nodiscard]] Point source(std::size_t x, std::size_t y, Size output, const Rect& region = {0, 0, 1, 1}) const {
    const double u = (static_cast<double>(x) + 0.5) / output.width;
    const double v = (static_cast<double>(y) + 0.5) / output.height;
    const double across = region.x + region.width * (mirrorsX ? 1 - u : u);
    const double down = region.y + region.height * (mirrorsY ? 1 - v : v);
    return swaps ? Point{down, 1 - across} : Point{across, down};
  }
};
inline constexpr Turn kTurns[] = {{false, false, false}, {true, true, true},   {true, false, false},
                                  {false, false, true},  {false, true, false}, {true, true, false},
                                  {true, false, true},   {false, true, true}};

/// Compares a BGRA picture with what `expected` says for each pixel. Where a component is further off than `tolerance`
/// steps, the failure names the worst pixel, and the picture and its difference lie as PNG files beside the test.
[[nodiscard]] testing::AssertionResult matches(const std::shared_ptr<PixelBuffer>& actual, std::size_t width,
                                               std::size_t height, double tolerance,
                                               const std::function<Color(std::size_t x, std::size_t y)>& expected);

}  // namespace zellive::test
