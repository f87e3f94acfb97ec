#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "zellive/platform/Geometry.h"
#include "zellive/platform/PixelBuffer.h"

namespace zellive {

class ZelLivePixelBufferFitSizeFilter;

/// Receives the renderer's pictures.
class ZelLivePixelBufferFitSizeDelegate {
 public:
  virtual ~ZelLivePixelBufferFitSizeDelegate() = default;
  /// `timeStamp`: milliseconds, as it was given. On the thread that called renderPixelBuffer.
  virtual void filterPixelBuffer(ZelLivePixelBufferFitSizeFilter& filter, std::shared_ptr<PixelBuffer> pixelBuffer,
                                 double timeStamp) = 0;
};

/// Brings pictures to the shape of the output. A picture that has it (width ÷ height equal to two decimals) is handed
/// on as it is, at its own size; the encoder scales it. Others are refused with a log line: this renderer does not
/// draw.
class ZelLivePixelBufferFitSizeFilter {
 public:
  /// `videoSize`: the output in pixels.
  explicit ZelLivePixelBufferFitSizeFilter(Size videoSize) : videoSize_(videoSize) {}

  void setDelegate(std::weak_ptr<ZelLivePixelBufferFitSizeDelegate> delegate);
  /// Null is ignored; a picture that is not shareable, or of no size, is refused with a log line. Any thread.
  void renderPixelBuffer(std::shared_ptr<PixelBuffer> pixelBuffer, double timeStamp);

 private:
  bool hasOutputShape(std::size_t width, std::size_t height);

  const Size videoSize_;
  std::mutex mutex_;
  std::weak_ptr<ZelLivePixelBufferFitSizeDelegate> delegate_;
  std::size_t lastPixelWidth_ = 0;
  std::size_t lastPixelHeight_ = 0;
  bool lastHadShape_ = false;
};

}  // namespace zellive
