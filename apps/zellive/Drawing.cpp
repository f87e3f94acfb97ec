#include "apps/zellive/Drawing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace zellive::tool {
namespace {

constexpr int glyphRows = 7;
constexpr int glyphColumns = 5;
constexpr std::string_view glyphNames = "0123456789:.";
/// One byte a row, the lowest five bits from left to right.
constexpr std::array<std::array<std::uint8_t, glyphRows>, 12> glyphs{{
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E},
    {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x06, 0x08, 0x10, 0x1F},
    {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02},
    {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E},
    {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E},
    {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C},
    {0x00, 0x04, 0x04, 0x00, 0x04, 0x04, 0x00},
    {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C},
}};

void fillPlane(const PixelBuffer::Plane& plane, Area area, std::uint8_t value) {
  const int left = std::clamp(area.x, 0, static_cast<int>(plane.width));
  const int right = std::clamp(area.x + area.width, left, static_cast<int>(plane.width));
  const int top = std::clamp(area.y, 0, static_cast<int>(plane.height));
  const int bottom = std::clamp(area.y + area.height, top, static_cast<int>(plane.height));
  for (int row = top; row < bottom; ++row) {
    std::memset(plane.base + static_cast<std::size_t>(row) * plane.bytesPerRow + left, value,
                static_cast<std::size_t>(right - left));
  }
}

std::uint8_t toByte(double value) { return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0))); }

}  // namespace

Colour colourOf(int red, int green, int blue) {
  const double luma = 0.2126 * red + 0.7152 * green + 0.0722 * blue;
  return {toByte(16 + luma * 219 / 255), toByte(128 + (blue - luma) / 1.8556 * 224 / 255),
          toByte(128 + (red - luma) / 1.5748 * 224 / 255)};
}

void fill(PixelBuffer& picture, Area area, Colour colour) {
  const Area half{area.x / 2, area.y / 2, (area.x + area.width) / 2 - area.x / 2,
                  (area.y + area.height) / 2 - area.y / 2};
  fillPlane(picture.plane(0), {half.x * 2, half.y * 2, half.width * 2, half.height * 2}, colour.y);
  fillPlane(picture.plane(1), half, colour.cb);
  fillPlane(picture.plane(2), half, colour.cr);
}

void drawDigits(PixelBuffer& picture, int x, int y, int unit, std::string_view text, Colour colour) {
  for (const char character : text) {
    const auto glyph = glyphNames.find(character);
    if (glyph != std::string_view::npos) {
      for (int row = 0; row < glyphRows; ++row) {
        for (int column = 0; column < glyphColumns; ++column) {
          if ((glyphs[glyph][static_cast<std::size_t>(row)] >> (glyphColumns - 1 - column) & 1) != 0) {
            fill(picture, {x + column * unit, y + row * unit, unit, unit}, colour);
          }
        }
      }
    }
    x += (glyphColumns + 1) * unit;
  }
}

}  // namespace zellive::tool
