#include "apps/zellive/PictureFitter.h"

#include <libyuv.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace zellive::tool {
namespace {

std::size_t evenBelow(double value) { return std::max<std::size_t>(2, static_cast<std::size_t>(value) & ~1U); }

/// Where a plane's pixels begin, in the middle of a larger one.
std::uint8_t* middle(const PixelBuffer::Plane& plane, std::size_t x, std::size_t y) {
  return plane.base + y * plane.bytesPerRow + x;
}

}  // namespace

std::shared_ptr<PixelBuffer> PictureFitter::fit(std::shared_ptr<PixelBuffer> picture, std::size_t width,
                                                std::size_t height) {
  if (picture->width() == width && picture->height() == height) {
    return picture;
  }
  if (!pool_ || pool_->width() != width || pool_->height() != height) {
    pool_ = PixelBufferPool::create(PixelFormat::Planar, width, height);
  }
  auto fitted = pool_ ? pool_->acquire() : nullptr;
  if (!fitted) {
    return nullptr;
  }
  constexpr std::array<int, 3> black{16, 128, 128};
  for (std::size_t i = 0; i < fitted->planeCount(); ++i) {
    const auto& plane = fitted->plane(i);
    std::memset(plane.base, black.at(i), plane.bytesPerRow * plane.height);
  }
  const double scale = std::min(static_cast<double>(width) / static_cast<double>(picture->width()),
                                static_cast<double>(height) / static_cast<double>(picture->height()));
  const auto across = std::min(width, evenBelow(static_cast<double>(picture->width()) * scale + 1e-6));
  const auto down = std::min(height, evenBelow(static_cast<double>(picture->height()) * scale + 1e-6));
  const auto x = (width - across) / 4 * 2;
  const auto y = (height - down) / 4 * 2;
  const auto stride = [](const PixelBuffer::Plane& plane) { return static_cast<int>(plane.bytesPerRow); };
  const auto& from = *picture;
  const auto& to = *fitted;
  libyuv::I420Scale(from.plane(0).base, stride(from.plane(0)), from.plane(1).base, stride(from.plane(1)),
                    from.plane(2).base, stride(from.plane(2)), static_cast<int>(from.width()),
                    static_cast<int>(from.height()), middle(to.plane(0), x, y), stride(to.plane(0)),
                    middle(to.plane(1), x / 2, y / 2), stride(to.plane(1)), middle(to.plane(2), x / 2, y / 2),
                    stride(to.plane(2)), static_cast<int>(across), static_cast<int>(down), libyuv::kFilterBilinear);
  fitted->setColorMatrix(picture->colorMatrix());
  return fitted;
}

}  // namespace zellive::tool
