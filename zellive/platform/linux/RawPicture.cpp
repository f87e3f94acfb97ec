#include "zellive/platform/linux/RawPicture.h"

#include <libyuv.h>

#include <algorithm>
#include <vector>

#include "zellive/platform/linux/ColourChange.h"

namespace zellive {
namespace {

/// From the least work to the most. The fourth byte of the X forms says nothing.
struct Encoding {
  std::string_view name;
  std::optional<RawLayout> layout;
};
constexpr std::array<Encoding, 17> kEncodings{{{"NV12", RawLayout::NV12},
                                               {"I420", RawLayout::I420},
                                               {"YV12", RawLayout::YV12},
                                               {"NV21", RawLayout::NV21},
                                               {"YUY2", RawLayout::YUY2},
                                               {"UYVY", RawLayout::UYVY},
                                               {"BGRA", RawLayout::BGRA},
                                               {"BGRx", RawLayout::BGRA},
                                               {"RGBA", RawLayout::RGBA},
                                               {"RGBx", RawLayout::RGBA},
                                               {"BGR", RawLayout::BGR},
                                               {"RGB", RawLayout::RGB},
                                               {"ARGB", RawLayout::ARGB},
                                               {"xRGB", RawLayout::ARGB},
                                               {"ABGR", RawLayout::ABGR},
                                               {"xBGR", RawLayout::ABGR},
                                               {"MJPEG", std::nullopt}}};

const Encoding* encodingOf(std::string_view name) {
  const auto* const found =
      std::find_if(kEncodings.begin(), kEncodings.end(), [&](const Encoding& each) { return each.name == name; });
  return found == kEncodings.end() ? nullptr : found;
}

std::size_t half(std::size_t side) { return (side + 1) / 2; }

/// Of one plane: the bytes of a row, and the rows.
struct Shape {
  std::size_t bytes = 0;
  std::size_t rows = 0;
};

Shape shapeOf(const RawPicture& picture, std::size_t plane) {
  const std::size_t width = picture.width;
  const std::size_t height = picture.height;
  const bool first = plane == 0;
  switch (picture.layout) {
    case RawLayout::NV12:
    case RawLayout::NV21:
      return first ? Shape{width, height} : Shape{half(width) * 2, half(height)};
    case RawLayout::I420:
    case RawLayout::YV12:
      return first ? Shape{width, height} : Shape{half(width), half(height)};
    case RawLayout::YUY2:
    case RawLayout::UYVY:
      return {half(width) * 4, height};
    case RawLayout::RGB:
    case RawLayout::BGR:
      return {width * 3, height};
    case RawLayout::RGBA:
    case RawLayout::BGRA:
    case RawLayout::ARGB:
    case RawLayout::ABGR:
      return {width * 4, height};
    case RawLayout::I422:
      return first ? Shape{width, height} : Shape{half(width), height};
    case RawLayout::I444:
      return {width, height};
  }
  return {};
}

/// Where the planes of one block begin, given the first plane's rows.
struct Arrangement {
  std::array<std::size_t, 3> offsets{};
  std::array<std::size_t, 3> bytesPerRow{};
  std::size_t rounded = 0;  ///< Bytes with each row and plane rounded up.
  std::size_t needed = 0;   ///< Bytes up to the last sample.
};

Arrangement arrange(const RawPicture& picture, std::size_t bytesPerRow, std::size_t chromaAlignment) {
  Arrangement result;
  const std::size_t planes = planeCount(picture.layout);
  for (std::size_t i = 0; i < planes; ++i) {
    const Shape shape = shapeOf(picture, i);
    // Chroma rows take the same part of their row in memory as luma rows do.
    std::size_t row = i == 0 || planes == 2 ? bytesPerRow : half(bytesPerRow);
    row = i == 0 ? row : (row + chromaAlignment - 1) / chromaAlignment * chromaAlignment;
    const std::size_t rows = planes > 1 && i == 0 ? half(shape.rows) * 2 : shape.rows;
    result.offsets[i] = result.rounded;
    result.bytesPerRow[i] = row;
    result.needed = result.rounded + row * (shape.rows - 1) + shape.bytes;
    result.rounded += row * rows;
  }
  return result;
}

int toInt(std::size_t value) { return static_cast<int>(value); }

/// Room for what is half converted, kept by each thread that converts.
std::vector<std::uint8_t>& scratch(std::size_t size) {
  thread_local std::vector<std::uint8_t> memory;
  if (memory.size() < size) {
    memory.resize(size);
  }
  return memory;
}

void changeRange(const PixelBuffer::Plane& plane, std::size_t samples, const RangeTable& table) {
  for (std::size_t row = 0; row < plane.height; ++row) {
    std::uint8_t* bytes = plane.base + row * plane.bytesPerRow;
    std::transform(bytes, bytes + samples, bytes, [&](std::uint8_t value) { return table[value]; });
  }
}

using ToPlanar = decltype(&libyuv::ARGBToI420);

/// The library names the order within a little-endian word, which is the reverse of the bytes'.
ToPlanar rgbConversion(RawLayout layout) {
  switch (layout) {
    case RawLayout::BGRA:
      return libyuv::ARGBToI420;
    case RawLayout::RGBA:
      return libyuv::ABGRToI420;
    case RawLayout::ARGB:
      return libyuv::BGRAToI420;
    case RawLayout::ABGR:
      return libyuv::RGBAToI420;
    case RawLayout::RGB:
      return libyuv::RAWToI420;
    default:
      return libyuv::RGB24ToI420;
  }
}

void throughPlanar(const RawPicture& from, PixelBuffer& to, ToPlanar convert) {
  const int width = toInt(from.width);
  const int height = toInt(from.height);
  const std::size_t chroma = half(from.width);
  std::uint8_t* const y = scratch(from.width * from.height + 2 * chroma * half(from.height)).data();
  std::uint8_t* const u = y + from.width * from.height;
  std::uint8_t* const v = u + chroma * half(from.height);
  convert(from.planes[0].base, toInt(from.planes[0].bytesPerRow), y, width, u, toInt(chroma), v, toInt(chroma), width,
          height);
  libyuv::I420ToNV12(y, width, u, toInt(chroma), v, toInt(chroma), to.plane(0).base, toInt(to.plane(0).bytesPerRow),
                     to.plane(1).base, toInt(to.plane(1).bytesPerRow), width, height);
}

}  // namespace

std::optional<int> encodingRank(std::string_view encoding) {
  const auto* const found = encodingOf(encoding);
  return found == nullptr ? std::nullopt : std::optional(toInt(static_cast<std::size_t>(found - kEncodings.data())));
}

std::optional<RawLayout> layoutOf(std::string_view encoding) {
  const auto* const found = encodingOf(encoding);
  return found == nullptr ? std::nullopt : found->layout;
}

bool isRgb(RawLayout layout) { return layout >= RawLayout::RGB && layout <= RawLayout::ABGR; }

std::size_t planeCount(RawLayout layout) {
  switch (layout) {
    case RawLayout::NV12:
    case RawLayout::NV21:
      return 2;
    case RawLayout::I420:
    case RawLayout::YV12:
    case RawLayout::I422:
    case RawLayout::I444:
      return 3;
    default:
      return 1;
  }
}

bool findPlanes(RawPicture& picture, std::span<const std::uint8_t> block, std::size_t bytesPerRow) {
  if (picture.width == 0 || picture.height == 0) {
    return false;
  }
  const std::size_t tight = shapeOf(picture, 0).bytes;
  Arrangement found = arrange(picture, std::max(bytesPerRow, tight), 1);
  if (bytesPerRow < tight) {
    // Whoever does not say pads rows to some power of two, chroma to the same or along with luma: the padding that
    // fills the block is the one.
    const auto fits = [&](std::size_t row, std::size_t chromaAlignment) {
      const auto candidate = arrange(picture, row, chromaAlignment);
      if (candidate.rounded == block.size()) {
        found = candidate;
      }
      return candidate.rounded == block.size();
    };
    for (std::size_t alignment = 1; alignment <= 256; alignment *= 2) {
      const std::size_t row = (tight + alignment - 1) / alignment * alignment;
      if (fits(row, alignment) || fits(row, 1)) {
        break;
      }
    }
  }
  if (found.needed > block.size()) {
    return false;
  }
  for (std::size_t i = 0; i < planeCount(picture.layout); ++i) {
    picture.planes[i] = {block.data() + found.offsets[i], found.bytesPerRow[i]};
  }
  return true;
}

bool findPlanes(RawPicture& picture, std::span<const std::span<const std::uint8_t>> blocks,
                std::span<const std::size_t> bytesPerRow) {
  if (picture.width == 0 || picture.height == 0 || blocks.size() < planeCount(picture.layout)) {
    return false;
  }
  for (std::size_t i = 0; i < planeCount(picture.layout); ++i) {
    const Shape shape = shapeOf(picture, i);
    const std::size_t row = std::max(bytesPerRow[i], shape.bytes);
    if (blocks[i].size() < row * (shape.rows - 1) + shape.bytes) {
      return false;
    }
    picture.planes[i] = {blocks[i].data(), row};
  }
  return true;
}

void toBiPlanar(const RawPicture& from, PixelBuffer& to) {
  const int width = toInt(from.width);
  const int height = toInt(from.height);
  const auto& luma = to.plane(0);
  const auto& chroma = to.plane(1);
  const auto [y, u, v] = from.planes;
  const int yRow = toInt(y.bytesPerRow);
  const int uRow = toInt(u.bytesPerRow);
  const int vRow = toInt(v.bytesPerRow);
  const int toY = toInt(luma.bytesPerRow);
  const int toUV = toInt(chroma.bytesPerRow);
  switch (from.layout) {
    case RawLayout::NV12:
      libyuv::NV12Copy(y.base, yRow, u.base, uRow, luma.base, toY, chroma.base, toUV, width, height);
      break;
    case RawLayout::NV21:
      libyuv::NV21ToNV12(y.base, yRow, u.base, uRow, luma.base, toY, chroma.base, toUV, width, height);
      break;
    case RawLayout::I420:
      libyuv::I420ToNV12(y.base, yRow, u.base, uRow, v.base, vRow, luma.base, toY, chroma.base, toUV, width, height);
      break;
    case RawLayout::YV12:
      libyuv::I420ToNV12(y.base, yRow, v.base, vRow, u.base, uRow, luma.base, toY, chroma.base, toUV, width, height);
      break;
    case RawLayout::YUY2:
      // The direct way of some versions of the library spoils the chroma at the end of rows of other lengths.
      if (width % 32 == 0) {
        libyuv::YUY2ToNV12(y.base, yRow, luma.base, toY, chroma.base, toUV, width, height);
      } else {
        throughPlanar(from, to, libyuv::YUY2ToI420);
      }
      break;
    case RawLayout::UYVY:
      libyuv::UYVYToNV12(y.base, yRow, luma.base, toY, chroma.base, toUV, width, height);
      break;
    case RawLayout::I422:
      // To Cr before Cb, with the two exchanged.
      libyuv::I422ToNV21(y.base, yRow, v.base, vRow, u.base, uRow, luma.base, toY, chroma.base, toUV, width, height);
      break;
    case RawLayout::I444:
      libyuv::I444ToNV12(y.base, yRow, u.base, uRow, v.base, vRow, luma.base, toY, chroma.base, toUV, width, height);
      break;
    default:
      throughPlanar(from, to, rgbConversion(from.layout));
      break;
  }
  const bool fromFull = from.fullRange && !isRgb(from.layout);
  const bool toFull = to.format() == PixelFormat::BiPlanarFullRange;
  if (fromFull != toFull) {
    changeRange(luma, luma.width, rangeTable(toFull, false));
    changeRange(chroma, chroma.width * 2, rangeTable(toFull, true));
  }
}

}  // namespace zellive
