#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

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

/// Compares a BGRA picture with what `expected` says for each pixel. Where a component is further off than `tolerance`
/// steps, the failure names the worst pixel, and the picture and its difference lie as PNG files beside the test.
[[nodiscard]] testing::AssertionResult matches(const std::shared_ptr<PixelBuffer>& actual, std::size_t width,
                                               std::size_t height, double tolerance,
                                               const std::function<Color(std::size_t x, std::size_t y)>& expected);

}  // namespace zellive::test
