#include "zellive/capture/ZelLiveTool.h"

#include <cstring>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

void copyPlane(const PixelBuffer::Plane& from, const PixelBuffer::Plane& to, std::size_t bytes) {
  if (from.bytesPerRow == to.bytesPerRow) {
    // The last row of somebody else's memory may end with its last sample.
    std::memcpy(to.base, from.base, from.bytesPerRow * (from.height - 1) + bytes);
    return;
  }
  for (std::size_t row = 0; row < from.height; ++row) {
    std::memcpy(to.base + row * to.bytesPerRow, from.base + row * from.bytesPerRow, bytes);
  }
}

}  // namespace

std::shared_ptr<PixelBufferPool> ZelLiveTool::poolFor(const PixelBuffer& pixelBuffer) {
  const std::lock_guard lock(mutex_);
  if (!pool_ || pool_->format() != pixelBuffer.format() || pool_->width() != pixelBuffer.width() ||
      pool_->height() != pixelBuffer.height()) {
    pool_ = PixelBufferPool::create(pixelBuffer.format(), pixelBuffer.width(), pixelBuffer.height());
  }
  return pool_;
}

std::shared_ptr<PixelBuffer> ZelLiveTool::copyPixelBuffer(const std::shared_ptr<PixelBuffer>& pixelBuffer) {
  if (!pixelBuffer) {
    return nullptr;
  }
  const auto planes = pixelBuffer->planeCount();
  if (planes == 3) {
    if (sampled(1000)) {
      ZEL_LOG_INFO("CVPixelbuffer plane type: %s", describeObject("PixelBuffer", pixelBuffer.get()).c_str());
    }
    return pixelBuffer;
  }
  if (pixelBuffer->width() == 0 || pixelBuffer->height() == 0) {
    return pixelBuffer;  // Nothing to copy; the renderer refuses it with its size.
  }
  const auto pool = poolFor(*pixelBuffer);
  auto copy = pool ? pool->acquire() : nullptr;
  if (!copy) {
    ZEL_LOG_ERROR("%s", planes == 2 ? "YUVBufferCopyWithPixelBuffer failed" : "RBGBuffereCopyWithPixelBuffer  failed");
    return nullptr;
  }
  copy->setColorMatrix(pixelBuffer->colorMatrix());
  for (std::size_t index = 0; index < planes; ++index) {
    const auto& from = pixelBuffer->plane(index);
    const std::size_t sampleBytes = planes == 1 ? 4 : index + 1;
    copyPlane(from, copy->plane(index), from.width * sampleBytes);
  }
  return copy;
}

}  // namespace zellive
