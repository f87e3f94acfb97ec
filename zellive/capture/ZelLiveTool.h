#pragma once

#include <memory>
#include <mutex>

#include "zellive/platform/PixelBuffer.h"

namespace zellive {

/// Makes private copies of pictures. Copies of one shape after another come from a pool. Thread-safe.
class ZelLiveTool {
 public:
  /// A shareable copy of a BGRA or bi-planar picture; the picture itself when it is planar (three planes); null for
  /// null and when memory is short (logged).
  [[nodiscard]] std::shared_ptr<PixelBuffer> copyPixelBuffer(const std::shared_ptr<PixelBuffer>& pixelBuffer);

 private:
  std::shared_ptr<PixelBufferPool> poolFor(const PixelBuffer& pixelBuffer);

  std::mutex mutex_;
  std::shared_ptr<PixelBufferPool> pool_;
};

}  // namespace zellive
