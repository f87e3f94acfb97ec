#include "zellive/capture/ZelLiveTool.h"

#include <algorithm>
#include <cstring>

#include "zellive/platform/BgraConversion.h"
#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// A stream may mix pictures of different shapes; more than these in turn is not worth the memory.
constexpr std::size_t kMostPools = 3;

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

std::shared_ptr<PixelBuffer> ZelLiveTool::acquire(PixelFormat format, std::size_t width, std::size_t height) {
  std::shared_ptr<PixelBufferPool> pool;
  {
    const std::lock_guard lock(mutex_);
    auto found = std::ranges::find_if(pools_, [&](const auto& each) {
      return each->format() == format && each->width() == width && each->height() == height;
    });
    if (found == pools_.end()) {
      auto made = PixelBufferPool::create(format, width, height);
      if (!made) {
        return nullptr;
      }
      pools_.resize(std::min(pools_.size(), kMostPools - 1));
      found = pools_.insert(pools_.end(), std::move(made));
    }
    std::rotate(pools_.begin(), found, found + 1);
    pool = pools_.front();
  }
  return pool->acquire();
}

std::shared_ptr<PixelBuffer> ZelLiveTool::copyPixelBuffer(const std::shared_ptr<PixelBuffer>& pixelBuffer) {
  if (!pixelBuffer) {
    return nullptr;
  }
  const auto planes = pixelBuffer->planeCount();
  if (planes == 3) {
    // Some decoders give nothing else: a line for each picture would bury everything that matters.
    if (sampled(1000)) {
      ZEL_LOG_INFO("CVPixelbuffer plane type: %s", describeObject("PixelBuffer", pixelBuffer.get()).c_str());
    }
    return pixelBuffer;
  }
  if (pixelBuffer->width() == 0 || pixelBuffer->height() == 0) {
    return pixelBuffer;  // Nothing to copy; the renderer refuses it with its size.
  }
  auto copy = acquire(pixelBuffer->format(), pixelBuffer->width(), pixelBuffer->height());
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

std::shared_ptr<PixelBuffer> ZelLiveTool::copyPixelBufferAsBgra(const std::shared_ptr<PixelBuffer>& pixelBuffer) {
  if (!pixelBuffer || pixelBuffer->width() == 0 || pixelBuffer->height() == 0) {
    return pixelBuffer;
  }
  auto copy = acquire(PixelFormat::BGRA, pixelBuffer->width(), pixelBuffer->height());
  if (!copy || !convertToBgra(*pixelBuffer, *copy)) {
    ZEL_LOG_ERROR("Live: a picture of %zu x %zu cannot be copied as BGRA", pixelBuffer->width(), pixelBuffer->height());
    return nullptr;
  }
  return copy;
}

}  // namespace zellive
