#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace zellive {

/// Memory layout of a picture, 8 bits a component. The values are four-character codes.
enum class PixelFormat : std::uint32_t {
  BiPlanarFullRange = 0x34323066,   ///< '420f': Y plane, then interleaved Cb Cr at half size (NV12); range 0…255.
  BiPlanarVideoRange = 0x34323076,  ///< '420v': the same with Y 16…235 and Cb, Cr 16…240.
  Planar = 0x79343230,              ///< 'y420': Y, Cb and Cr planes (I420), video range.
  BGRA = 0x42475241,                ///< 'BGRA': one plane of B, G, R, A bytes.
};

/// The matrix that made the picture's Y, Cb and Cr (ITU-T H.273); nothing for BGRA.
enum class ColorMatrix : std::uint8_t { Unspecified, BT601, BT709 };

/// One picture in memory, reference counted by `std::shared_ptr`. Its shape never changes. The bytes may be written by
/// whoever made it until it is handed on; afterwards everybody only reads.
class PixelBuffer {
 public:
  struct Plane {
    std::uint8_t* base = nullptr;
    std::size_t bytesPerRow = 0;
    std::size_t width = 0;   ///< In samples of this plane (a Cb Cr pair counts as one).
    std::size_t height = 0;  ///< In rows.
  };
  using Planes = std::array<Plane, 3>;

  /// A new shareable picture with contents undefined; null when width or height is 0 or above 16384, or memory is
  /// short. Rows start at multiples of 64 bytes. Odd sizes round the chroma planes up.
  [[nodiscard]] static std::shared_ptr<PixelBuffer> create(PixelFormat format, std::size_t width, std::size_t height);

  /// A picture over memory of somebody else's, in place; never shareable. `release` runs when the last reference goes,
  /// on the thread that drops it. Sizes are taken as given (0 too, so that later stages can refuse them); a null base
  /// or a row shorter than its samples gives null, and `release` runs before this returns.
  [[nodiscard]] static std::shared_ptr<PixelBuffer> wrap(PixelFormat format, std::size_t width, std::size_t height,
                                                         const std::array<std::uint8_t*, 3>& bases,
                                                         const std::array<std::size_t, 3>& bytesPerRow,
                                                         std::function<void()> release = {});

  /// The upper left `width` × `height` pixels of `whole`, in its memory, which stays alive; shareable where `whole` is.
  /// `release` runs when the last reference goes, on the thread that drops it. Null, with `release` run, when `whole`
  /// is null or smaller than that, or a side is 0.
  [[nodiscard]] static std::shared_ptr<PixelBuffer> crop(std::shared_ptr<PixelBuffer> whole, std::size_t width,
                                                         std::size_t height, std::function<void()> release = {});

  PixelBuffer(const PixelBuffer&) = delete;
  PixelBuffer& operator=(const PixelBuffer&) = delete;
  ~PixelBuffer();

  [[nodiscard]] PixelFormat format() const noexcept { return format_; }
  /// Pixels.
  [[nodiscard]] std::size_t width() const noexcept { return width_; }
  [[nodiscard]] std::size_t height() const noexcept { return height_; }
  /// 1 for BGRA, 2 for the bi-planar formats, 3 for I420.
  [[nodiscard]] std::size_t planeCount() const noexcept { return planeCount_; }
  /// `index` below planeCount().
  [[nodiscard]] const Plane& plane(std::size_t index) const noexcept { return planes_[index]; }
  /// True for memory of ours, which encoders and the GPU may read without a copy for as long as they hold a reference.
  [[nodiscard]] bool shareable() const noexcept { return shareable_; }

  [[nodiscard]] ColorMatrix colorMatrix() const noexcept { return colorMatrix_; }
  void setColorMatrix(ColorMatrix matrix) noexcept { colorMatrix_ = matrix; }

 private:
  friend class PixelBufferPool;
  PixelBuffer() = default;
  /// Gives this the shape and memory of its own; false when memory is short.
  [[nodiscard]] bool allocate(PixelFormat format, std::size_t width, std::size_t height);

  PixelFormat format_ = PixelFormat::BGRA;
  std::size_t width_ = 0;
  std::size_t height_ = 0;
  std::size_t planeCount_ = 0;
  Planes planes_{};
  bool shareable_ = false;
  ColorMatrix colorMatrix_ = ColorMatrix::Unspecified;
  std::function<void()> release_;
};

/// Recycles pictures of one shape, so that a running stream allocates none. Thread-safe. Pictures may outlive the pool.
class PixelBufferPool {
 public:
  /// Null for a size that PixelBuffer::create refuses.
  [[nodiscard]] static std::shared_ptr<PixelBufferPool> create(PixelFormat format, std::size_t width,
                                                               std::size_t height);
  ~PixelBufferPool();

  /// A shareable picture, recycled where one is free; its contents are undefined. Null when memory is short.
  [[nodiscard]] std::shared_ptr<PixelBuffer> acquire();

  [[nodiscard]] PixelFormat format() const noexcept;
  [[nodiscard]] std::size_t width() const noexcept;
  [[nodiscard]] std::size_t height() const noexcept;
  /// Bytes from one row of a picture's first plane to the next.
  [[nodiscard]] std::size_t bytesPerRow() const noexcept;
  /// Pictures that this pool has allocated so far.
  [[nodiscard]] std::size_t allocated() const;

 private:
  PixelBufferPool();
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

}  // namespace zellive
