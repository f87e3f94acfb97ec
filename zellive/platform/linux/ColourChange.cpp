#include "zellive/platform/linux/ColourChange.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace zellive {
namespace {

constexpr int clampByte(int value) { return std::clamp(value, 0, 255); }

/// Rounded value × numerator / denominator for values of either sign.
constexpr int scaleRounded(int value, int numerator, int denominator) {
  const int product = value * numerator * 2;
  return (product + (product >= 0 ? denominator : -denominator)) / (denominator * 2);
}

/// Luma 16…235 and chroma 128 ± 112 against 0…255 and 128 ± 127.5.
constexpr RangeTable makeTable(bool toFull, bool chroma) {
  RangeTable table{};
  for (int value = 0; value < 256; ++value) {
    const int zero = chroma ? 128 : 16;
    const int span = chroma ? 224 : 219;
    const int fullZero = chroma ? 128 : 0;
    table[static_cast<std::size_t>(value)] = static_cast<std::uint8_t>(clampByte(
        toFull ? scaleRounded(value - zero, 255, span) + fullZero : scaleRounded(value - fullZero, span, 255) + zero));
  }
  return table;
}
constexpr RangeTable kLumaToFull = makeTable(true, false);
constexpr RangeTable kLumaToVideo = makeTable(false, false);
constexpr RangeTable kChromaToFull = makeTable(true, true);
constexpr RangeTable kChromaToVideo = makeTable(false, true);

void mapPlane(std::uint8_t* base, int bytesPerRow, int width, int height, const RangeTable& table) {
  for (int row = 0; row < height; ++row) {
    std::uint8_t* bytes = base + static_cast<std::ptrdiff_t>(row) * bytesPerRow;
    std::transform(bytes, bytes + width, bytes, [&table](std::uint8_t value) { return table[value]; });
  }
}

/// How Y, Cb and Cr of one matrix become those of another, in 1/65536: what Cb and Cr add to Y, make of Cb and of Cr.
struct MatrixChange {
  std::array<int, 2> luma;
  std::array<int, 2> cb;
  std::array<int, 2> cr;
};

/// The weights of red and blue in luma (ITU-T H.273).
struct LumaWeights {
  double red;
  double blue;
};
constexpr LumaWeights kBT601 = {0.299, 0.114};
constexpr LumaWeights kBT709 = {0.2126, 0.0722};

/// `lumaStep`: steps of Y over steps of Cb and Cr for the same distance.
MatrixChange matrixChange(const LumaWeights& from, const LumaWeights& to, double lumaStep) {
  const double fromGreen = 1 - from.red - from.blue;
  const double toGreen = 1 - to.red - to.blue;
  // Of Cb and Cr, in this order: what they add to Y in red, green and blue, and so in the other luma.
  const std::array<double, 2> red = {0, 2 * (1 - from.red)};
  const std::array<double, 2> blue = {2 * (1 - from.blue), 0};
  const std::array<double, 2> green = {-from.blue * blue[0] / fromGreen, -from.red * red[1] / fromGreen};
  const auto fixed = [](double value) { return static_cast<int>(std::lround(value * 65536)); };
  MatrixChange change{};
  for (const std::size_t i : {0, 1}) {
    const double luma = to.red * red[i] + toGreen * green[i] + to.blue * blue[i];
    change.luma[i] = fixed(luma * lumaStep);
    change.cb[i] = fixed((blue[i] - luma) / (2 * (1 - to.blue)));
    change.cr[i] = fixed((red[i] - luma) / (2 * (1 - to.red)));
  }
  return change;
}

}  // namespace

const RangeTable& rangeTable(bool toFull, bool chroma) {
  return toFull ? (chroma ? kChromaToFull : kLumaToFull) : (chroma ? kChromaToVideo : kLumaToVideo);
}

void changeRange(AVFrame& frame, bool toFull) {
  mapPlane(frame.data[0], frame.linesize[0], frame.width, frame.height, rangeTable(toFull, false));
  for (int plane : {1, 2}) {
    mapPlane(frame.data[plane], frame.linesize[plane], (frame.width + 1) / 2, (frame.height + 1) / 2,
             rangeTable(toFull, true));
  }
}

void changeMatrix(AVFrame& frame, bool fullRange, bool toBT709) {
  const double lumaStep = fullRange ? 1 : 219.0 / 224;
  const auto change = toBT709 ? matrixChange(kBT601, kBT709, lumaStep) : matrixChange(kBT709, kBT601, lumaStep);
  constexpr int kHalf = 1 << 15;
  for (int row = 0; row < frame.height; row += 2) {
    std::uint8_t* cb = frame.data[1] + static_cast<std::ptrdiff_t>(row / 2) * frame.linesize[1];
    std::uint8_t* cr = frame.data[2] + static_cast<std::ptrdiff_t>(row / 2) * frame.linesize[2];
    std::uint8_t* upper = frame.data[0] + static_cast<std::ptrdiff_t>(row) * frame.linesize[0];
    std::uint8_t* lower = upper + frame.linesize[0];
    for (int column = 0; column < frame.width / 2; ++column) {
      const int u = cb[column] - 128;
      const int v = cr[column] - 128;
      const auto mixed = [&](const std::array<int, 2>& parts) { return (parts[0] * u + parts[1] * v + kHalf) >> 16; };
      cb[column] = static_cast<std::uint8_t>(clampByte(128 + mixed(change.cb)));
      cr[column] = static_cast<std::uint8_t>(clampByte(128 + mixed(change.cr)));
      const int brighter = mixed(change.luma);
      for (std::uint8_t* luma : {upper + 2 * column, lower + 2 * column}) {
        luma[0] = static_cast<std::uint8_t>(clampByte(luma[0] + brighter));
        luma[1] = static_cast<std::uint8_t>(clampByte(luma[1] + brighter));
      }
    }
  }
}

}  // namespace zellive
