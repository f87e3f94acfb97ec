#pragma once

#include <cstddef>
#include <memory>

#include "zellive/platform/PixelBuffer.h"

namespace zellive::tool {

/// Brings planar pictures to a size, undistorted, with black bars where the shape is another. One thread at a time.
class PictureFitter {
 public:
  /// The picture itself where its size is that already. Null when there is no memory.
  [[nodiscard]] std::shared_ptr<PixelBuffer> fit(std::shared_ptr<PixelBuffer> picture, std::size_t width,
                                                 std::size_t height);

 private:
  std::shared_ptr<PixelBufferPool> pool_;
};

}  // namespace zellive::tool
