#pragma once

#include <memory>

#include "apps/zellive/AvHandles.h"
#include "zellive/platform/PixelBuffer.h"

namespace zellive::tool {

/// Lets a decoder draw into pictures of ours, so that what it delivers can be streamed as it lies. One thread; it must
/// outlive the decoder.
class DecoderMemory {
 public:
  /// To be called before the decoder is opened. Does nothing for a decoder that needs memory of its own.
  void serve(AVCodecContext& decoder);

  /// The picture that `frame` was drawn into, in its place, holding on to the frame so that the decoder leaves it
  /// alone. Null when the frame lies elsewhere or is not planar 4:2:0.
  [[nodiscard]] static std::shared_ptr<PixelBuffer> pictureOf(const AVFrame& frame);

 private:
  static int getBuffer(AVCodecContext* decoder, AVFrame* frame, int flags);
  [[nodiscard]] bool provide(AVCodecContext& decoder, AVFrame& frame);

  std::shared_ptr<PixelBufferPool> pool_;
};

}  // namespace zellive::tool
