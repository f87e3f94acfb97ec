#include "zellive/capture/ZelLivePixelBufferFitSizeFilter.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// A ratio as people write it, which is how shapes are compared: 854 × 480 and 1280 × 720 are both 1.78.
double toTwoDecimals(float ratio) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f", static_cast<double>(ratio));
  return std::strtod(text, nullptr);
}

}  // namespace

void ZelLivePixelBufferFitSizeFilter::setDelegate(std::weak_ptr<ZelLivePixelBufferFitSizeDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

bool ZelLivePixelBufferFitSizeFilter::hasOutputShape(std::size_t width, std::size_t height) {
  {
    const std::lock_guard lock(mutex_);
    if (width == lastPixelWidth_ && height == lastPixelHeight_) {
      return lastHadShape_;
    }
  }
  const float videoRatio = static_cast<float>(videoSize_.width) / static_cast<float>(videoSize_.height);
  const float pixelRatio = static_cast<float>(width) / static_cast<float>(height);
  const bool hasShape = toTwoDecimals(videoRatio) == toTwoDecimals(pixelRatio);
  {
    const std::lock_guard lock(mutex_);
    lastPixelWidth_ = width;
    lastPixelHeight_ = height;
    lastHadShape_ = hasShape;
  }
  if (!hasShape) {
    ZEL_LOG_ERROR("Live: pictures of %zu x %zu do not have the shape of the output %.0f x %.0f and are dropped", width,
                  height, videoSize_.width, videoSize_.height);
  }
  return hasShape;
}

void ZelLivePixelBufferFitSizeFilter::renderPixelBuffer(std::shared_ptr<PixelBuffer> pixelBuffer, double timeStamp) {
  if (!pixelBuffer) {
    return;
  }
  if (!pixelBuffer->shareable()) {
    ZEL_LOG_ERROR("Live: pixelbuffer don't contain iosurface");
    return;
  }
  const auto width = pixelBuffer->width();
  const auto height = pixelBuffer->height();
  if (width == 0 || height == 0) {
    ZEL_LOG_ERROR("Live: filter get size error pixelWidth %zu pixelHeight %zu", width, height);
    return;
  }
  if (!hasOutputShape(width, height)) {
    return;
  }
  if (sampled(1000)) {
    ZEL_LOG_INFO("Live: videoSize is same to pixelSize 1/1000");
  }
  std::shared_ptr<ZelLivePixelBufferFitSizeDelegate> delegate;
  {
    const std::lock_guard lock(mutex_);
    delegate = delegate_.lock();
  }
  if (delegate) {
    delegate->filterPixelBuffer(*this, std::move(pixelBuffer), timeStamp);
  }
}

}  // namespace zellive
