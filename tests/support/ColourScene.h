#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>

#include "zellive/platform/PixelBuffer.h"

namespace zellive::test {

/// A still scene of smooth colours by the formulas of ITU-R BT.601, or BT.709 for that matrix: Y, Cb or Cr at a sample
/// of a plane, or B, G, R, A.
inline double sceneAt(PixelFormat format, ColorMatrix matrix, int component, int column, int row, int width,
                      int height) {
  const double step = component == 0 || format == PixelFormat::BGRA ? 1 : 2;
  const double x = (column + 0.5) * step / width;
  const double y = (row + 0.5) * step / height;
  const double colours[] = {0.95 - 0.8 * x * y, 0.05 + 0.9 * y, 0.05 + 0.9 * x, 1};
  if (format == PixelFormat::BGRA) {
    return 255 * colours[component];
  }
  const auto& [blue, green, red, alpha] = colours;
  const bool full = format == PixelFormat::BiPlanarFullRange;
  const double ofRed = matrix == ColorMatrix::BT709 ? 0.2126 : 0.299;
  const double ofBlue = matrix == ColorMatrix::BT709 ? 0.0722 : 0.114;
  const double luma = ofRed * red + (1 - ofRed - ofBlue) * green + ofBlue * blue;
  const double chroma = component == 1 ? (blue - luma) / (2 - 2 * ofBlue) : (red - luma) / (2 - 2 * ofRed);
  return component == 0 ? (full ? 255 * luma : 16 + 219 * luma) : 128 + (full ? 255 : 224) * chroma;
}

std::shared_ptr<PixelBuffer> draw(PixelFormat format, int width, int height, const auto& valueAt) {
  auto picture = PixelBuffer::create(format, static_cast<std::size_t>(width), static_cast<std::size_t>(height));
  for (std::size_t index = 0; index < picture->planeCount(); ++index) {
    const auto& plane = picture->plane(index);
    const int samples = format == PixelFormat::BGRA ? 4 : format != PixelFormat::Planar && index == 1 ? 2 : 1;
    for (int row = 0; row < static_cast<int>(plane.height); ++row) {
      auto* bytes = plane.base + static_cast<std::size_t>(row) * plane.bytesPerRow;
      for (int at = 0; at < static_cast<int>(plane.width) * samples; ++at) {
        const double value = valueAt(static_cast<int>(index) + at % samples, at / samples, row);
        bytes[at] = static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
      }
    }
  }
  return picture;
}

inline std::shared_ptr<PixelBuffer> colourScene(PixelFormat format, int width, int height,
                                                ColorMatrix matrix = ColorMatrix::Unspecified) {
  auto picture = draw(format, width, height, [&](int component, int column, int row) {
    return sceneAt(format, matrix, component, column, row, width, height);
  });
  picture->setColorMatrix(matrix);
  return picture;
}

}  // namespace zellive::test
