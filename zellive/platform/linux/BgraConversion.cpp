#include "zellive/platform/BgraConversion.h"

#include <libyuv.h>

#include <algorithm>
#include <limits>

#include "zellive/platform/linux/ColourChange.h"

namespace zellive {
namespace {

constexpr std::size_t kLargestSide = 16384;

bool isFullRange(const PixelBuffer& picture) { return picture.format() == PixelFormat::BiPlanarFullRange; }

const libyuv::YuvConstants& constantsOf(const PixelBuffer& picture) {
  if (picture.colorMatrix() == ColorMatrix::BT709) {
    return libyuv::kYuvF709Constants;
  }
  return isFullRange(picture) ? libyuv::kYuvJPEGConstants : libyuv::kYuvI601Constants;
}

int stride(const PixelBuffer::Plane& plane) { return static_cast<int>(plane.bytesPerRow); }

bool readable(const PixelBuffer& picture) {
  for (std::size_t index = 0; index < picture.planeCount(); ++index) {
    if (picture.plane(index).bytesPerRow > std::numeric_limits<int>::max()) {
      return false;
    }
  }
  return picture.width() <= kLargestSide && picture.height() <= kLargestSide;
}

/// `planes` in the layout of `picture`. libyuv names formats by the order in a little-endian word: its ARGB is B, G, R,
/// A in memory.
bool convert(const PixelBuffer& picture, const PixelBuffer::Planes& planes, std::uint8_t* target, int targetStride,
             int height) {
  const auto& [first, second, third] = planes;
  const auto width = static_cast<int>(picture.width());
  switch (picture.format()) {
    case PixelFormat::BGRA:
      return libyuv::ARGBCopy(first.base, stride(first), target, targetStride, width, height) == 0;
    case PixelFormat::Planar:
      return libyuv::I420ToARGBMatrix(first.base, stride(first), second.base, stride(second), third.base, stride(third),
                                      target, targetStride, &constantsOf(picture), width, height) == 0;
    case PixelFormat::BiPlanarFullRange:
    case PixelFormat::BiPlanarVideoRange:
      return libyuv::NV12ToARGBMatrix(first.base, stride(first), second.base, stride(second), target, targetStride,
                                      &constantsOf(picture), width, height) == 0;
  }
  return false;
}

/// Two rows at a time through full range: of BT.709's video range libyuv knows the share of Cb in blue, 2.11, only
/// as 2.
bool convertStretched(const PixelBuffer& picture, const PixelBuffer::Plane& target) {
  std::array<std::uint8_t, 3 * kLargestSide + 4> memory;
  for (std::size_t row = 0; row < picture.height(); row += 2) {
    const std::size_t rows = std::min<std::size_t>(2, picture.height() - row);
    PixelBuffer::Planes stretched{};
    auto* next = memory.data();
    for (std::size_t index = 0; index < picture.planeCount(); ++index) {
      const auto& plane = picture.plane(index);
      const std::size_t bytes = plane.width * (picture.planeCount() == 2 ? index + 1 : 1);
      const auto& table = rangeTable(true, index > 0);
      stretched[index] = {next, bytes, plane.width, index == 0 ? rows : 1};
      for (std::size_t line = 0; line < stretched[index].height; ++line) {
        const auto* from = plane.base + (index == 0 ? row + line : row / 2) * plane.bytesPerRow;
        next = std::transform(from, from + bytes, next, [&table](std::uint8_t value) { return table[value]; });
      }
    }
    if (!convert(picture, stretched, target.base + row * target.bytesPerRow, stride(target), static_cast<int>(rows))) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool convertToBgra(const PixelBuffer& from, const PixelBuffer& to) {
  if (to.format() != PixelFormat::BGRA || to.width() != from.width() || to.height() != from.height() ||
      !readable(from)) {
    return false;
  }
  if (from.colorMatrix() == ColorMatrix::BT709 && from.format() != PixelFormat::BGRA && !isFullRange(from)) {
    return convertStretched(from, to.plane(0));
  }
  return convert(from, {from.plane(0), from.plane(1), from.plane(2)}, to.plane(0).base, stride(to.plane(0)),
                 static_cast<int>(from.height()));
}

}  // namespace zellive
