#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "zellive/platform/TextureCache.h"

namespace zellive {

/// What the current context's driver can do with pictures in memory.
struct GlCapabilities {
  std::size_t maximumTextureSize = 0;
  bool bgraTextures = false;
  bool bgraTargets = false;
  bool bgraReads = false;
  bool unpackRowLength = false;
  bool packRowLength = false;

  [[nodiscard]] static GlCapabilities ofCurrentContext();
};

/// Rows of a picture in memory.
struct PixelRows {
  const std::uint8_t* base = nullptr;
  std::size_t bytesPerRow = 0;
  std::size_t width = 0;  ///< Pixels, as `height`.
  std::size_t height = 0;
};

/// Bytes of one pixel; 0 for a format that no picture in memory has.
[[nodiscard]] std::size_t bytesPerPixel(std::uint32_t format, std::uint32_t type);

/// The shape in words that the driver knows; `bgra`: whether these include BGRA for this use.
[[nodiscard]] TextureShape driverShape(TextureShape shape, bool bgra);

/// Fills the texture bound to GL_TEXTURE_2D, which has the driver's form of `asked`. `scratch` is reused between calls.
void uploadRows(const GlCapabilities& capabilities, const TextureShape& asked, const PixelRows& rows,
                std::vector<std::uint8_t>& scratch);

/// Reads the bound framebuffer as B, G, R, A. 0, or the driver's error.
[[nodiscard]] std::uint32_t readRows(const GlCapabilities& capabilities, std::uint8_t* base, std::size_t bytesPerRow,
                                     std::size_t width, std::size_t height);

}  // namespace zellive
