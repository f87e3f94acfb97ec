#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "zellive/platform/PixelBuffer.h"

namespace zellive {

/// A texture over a picture. It lives as long as a reference does; drop the last one with the texture's context
/// current.
struct PixelBufferTexture {
  std::uint32_t target = 0;  ///< GL_TEXTURE_2D.
  std::uint32_t name = 0;    ///< The OpenGL name.
};

/// A texture as OpenGL ES describes it; enumerants as in its headers. GL_RGBA (inside) with GL_BGRA (outside) asks for
/// the four bytes of a BGRA picture and works on every driver.
struct TextureShape {
  std::uint32_t internalFormat = 0x1908;  ///< GL_RGBA.
  std::size_t width = 0;                  ///< Pixels.
  std::size_t height = 0;
  std::uint32_t format = 0x80E1;  ///< GL_BGRA.
  std::uint32_t type = 0x1401;    ///< GL_UNSIGNED_BYTE.
  friend bool operator==(const TextureShape&, const TextureShape&) = default;
};

/// Why a texture was not made; the numbers are for messages.
enum class TextureStatus : int {
  Made = 0,
  NoContext = -1,   ///< The cache's context is not the calling thread's, or is lost.
  BadPicture = -2,  ///< No such plane, the plane is smaller than the texture, or a render target of an impossible size.
  TooLarge = -3,    ///< Above the context's GL_MAX_TEXTURE_SIZE.
  NotSupported = -4,  ///< The driver refuses this format.
};

/// A texture that is drawn into, with a picture in memory behind it. Call everything with its context current.
class RenderTarget {
 public:
  virtual ~RenderTarget() = default;

  /// Linear filters, clamped to the edge. Whoever changes these parameters changes them for good.
  [[nodiscard]] virtual const PixelBufferTexture& texture() const = 0;
  /// Bytes from one row of pixelBuffer() to the next.
  [[nodiscard]] virtual std::size_t bytesPerRow() const = 0;
  /// Says that the texture is about to be drawn into: what pixelBuffer() returned before shows it no longer.
  virtual void contentsWillChange() = 0;
  /// What has been drawn, as a BGRA picture whose first row is the texture's row t = 0. Waits for the drawing; reads it
  /// at most once after each contentsWillChange() and returns the same picture until the next. A picture that somebody
  /// keeps is never written again, on any thread. Null when the context is not current or lost, or memory is short.
  [[nodiscard]] virtual std::shared_ptr<PixelBuffer> pixelBuffer() = 0;
};

template <typename Texture>
struct TextureResult {
  std::shared_ptr<Texture> texture;  ///< Null unless `status` is Made.
  TextureStatus status = TextureStatus::Made;
};

/// Makes textures of one context from pictures, and keeps textures of the shapes in use, so that a running pipeline
/// makes none. Call everything, the destructor included, with the context current.
class TextureCache {
 public:
  virtual ~TextureCache() = default;

  /// A texture with the upper left part of a plane as it is now; linear filters, clamped to the edge. Uses the active
  /// texture unit. A texture with the last reference dropped serves again.
  [[nodiscard]] virtual TextureResult<const PixelBufferTexture> makeTexture(const PixelBuffer& picture,
                                                                            std::size_t plane,
                                                                            const TextureShape& shape) = 0;
  /// A texture to draw into, contents undefined. Uses the active texture unit.
  [[nodiscard]] virtual TextureResult<RenderTarget> makeRenderTarget(const TextureShape& shape) = 0;

  enum class Flush { Stale, All };
  /// Deletes textures that nobody refers to: those that have been idle for some dozen flushes, or all.
  virtual void flush(Flush which) = 0;
};

}  // namespace zellive
