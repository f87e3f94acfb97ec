#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "zellive/platform/PixelBuffer.h"

namespace zellive {

/// Makes private copies of pictures, recycled as long as there are but a few shapes. Thread-safe.
class ZelLiveTool {
 public:
  /// A shareable copy of a BGRA or bi-planar picture; the picture itself when it is planar (three planes); null for
  /// null and when memory is short (logged).
  [[nodiscard]] std::shared_ptr<PixelBuffer> copyPixelBuffer(const std::shared_ptr<PixelBuffer>& pixelBuffer);
  /// A shareable BGRA copy of a picture in any format, in its own colours; null as above.
  [[nodiscard]] std::shared_ptr<PixelBuffer> copyPixelBufferAsBgra(const std::shared_ptr<PixelBuffer>& pixelBuffer);

 private:
  [[nodiscard]] std::shared_ptr<PixelBuffer> acquire(PixelFormat format, std::size_t width, std::size_t height);

  std::mutex mutex_;
  std::vector<std::shared_ptr<PixelBufferPool>> pools_;  // Guarded by mutex_; the one used last comes first.
};

}  // namespace zellive
