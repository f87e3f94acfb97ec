#pragma once

#include <cstdint>
#include <string_view>

#include "zellive/platform/PixelBuffer.h"

namespace zellive::tool {

/// Video range Y, Cb, Cr (ITU-R BT.709).
struct Colour {
  std::uint8_t y = 16;
  std::uint8_t cb = 128;
  std::uint8_t cr = 128;
};

/// From full-range R, G, B.
[[nodiscard]] Colour colourOf(int red, int green, int blue);

inline constexpr Colour black{16, 128, 128};
inline constexpr Colour white{235, 128, 128};

/// Pixels; drawing outside the picture is cut off, and edges fall on even pixels so that chroma follows luma.
struct Area {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
};

/// Fills part of a planar picture.
void fill(PixelBuffer& picture, Area area, Colour colour);

/// Draws '0' to '9', ':' and '.', each 6 × 8 units wide and high, gap included.
void drawDigits(PixelBuffer& picture, int x, int y, int unit, std::string_view text, Colour colour);

}  // namespace zellive::tool
