#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace zellive {

class PixelBuffer;

/// A still picture in memory that is lent: 8 bits a component, 32 a pixel, device RGB. The lender is told when the last
/// owner lets go of it.
class Image {
 public:
  enum class Layout {
    BGRAPremultiplied,  ///< B, G, R, A in memory: 32-bit little-endian with alpha first, premultiplied.
    RGBA,               ///< R, G, B, A in memory: alpha last.
  };

  /// `release` runs once, when this is destroyed, on the thread that destroys it.
  Image(Layout layout, std::size_t width, std::size_t height, std::size_t bytesPerRow, const std::uint8_t* bytes,
        std::function<void()> release)
      : layout_(layout),
        width_(width),
        height_(height),
        bytesPerRow_(bytesPerRow),
        bytes_(bytes),
        release_(std::move(release)) {}
  ~Image() {
    if (release_) {
      release_();
    }
  }
  Image(const Image&) = delete;
  Image& operator=(const Image&) = delete;

  [[nodiscard]] Layout layout() const noexcept { return layout_; }
  /// Pixels.
  [[nodiscard]] std::size_t width() const noexcept { return width_; }
  [[nodiscard]] std::size_t height() const noexcept { return height_; }
  [[nodiscard]] std::size_t bytesPerRow() const noexcept { return bytesPerRow_; }
  /// The first row. height() rows of bytesPerRow() bytes, the last of which may end after its pixels.
  [[nodiscard]] const std::uint8_t* bytes() const noexcept { return bytes_; }

 private:
  const Layout layout_;
  const std::size_t width_;
  const std::size_t height_;
  const std::size_t bytesPerRow_;
  const std::uint8_t* const bytes_;
  const std::function<void()> release_;
};

/// Writes the components as they are to a PNG file, replacing what is there. False, with the reason logged, when it
/// cannot be written.
bool savePNG(const Image& image, const std::string& path);

/// The picture in a PNG file of any kind: BGRA, components multiplied by alpha. Null, with the reason logged, when it
/// cannot be read or a side is above 16384 pixels.
[[nodiscard]] std::shared_ptr<PixelBuffer> loadPNG(const std::string& path);

}  // namespace zellive
