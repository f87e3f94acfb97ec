#include "zellive/capture/ZelLivePixelBufferFitSizeFilter.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "zellive/capture/FitSizePainter.h"
#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// A burst after a short stall is drawn; what a renderer that is too slow cannot draw costs no more memory than this.
constexpr std::size_t kMostWaiting = 4;
constexpr std::uint64_t kDropsPerWarning = 100;

/// A ratio as people write it, which is how shapes are compared: 854 × 480 and 1280 × 720 are both 1.78.
double toTwoDecimals(float ratio) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f", static_cast<double>(ratio));
  return std::strtod(text, nullptr);
}

std::uint64_t wholeMilliseconds(double timeStamp) {
  return timeStamp > 0 && timeStamp < 1e15 ? static_cast<std::uint64_t>(timeStamp) : 0;
}

bool isUpright(std::int64_t orientation) { return orientation == 1 || orientation == 2; }
bool isLying(std::int64_t orientation) { return orientation == 3 || orientation == 4; }
bool isFlat(std::int64_t orientation) { return orientation == 5 || orientation == 6; }

}  // namespace

std::shared_ptr<ZelLivePixelBufferFitSizeFilter> ZelLivePixelBufferFitSizeFilter::create(
    Size videoSize, std::shared_ptr<const Platform> platform) {
  return std::shared_ptr<ZelLivePixelBufferFitSizeFilter>(
      new ZelLivePixelBufferFitSizeFilter(videoSize, std::move(platform)));
}

ZelLivePixelBufferFitSizeFilter::ZelLivePixelBufferFitSizeFilter(Size videoSize,
                                                                 std::shared_ptr<const Platform> platform)
    : platform_(std::move(platform)),
      videoRatio_(toTwoDecimals(static_cast<float>(videoSize.width) / static_cast<float>(videoSize.height))),
      painter_(std::make_shared<FitSizePainter>(videoSize, platform_->graphics)),
      contextQueue_(platform_->queues->makeSerialQueue("com.morrowfen.fs.contextQueue")) {
  inFlight_.reserve(kMostWaiting);
}

ZelLivePixelBufferFitSizeFilter::~ZelLivePixelBufferFitSizeFilter() {
  // What is on the GPU goes where it was made, and before this returns, so that no thread is left in the driver while
  // the process exits. Only an end that comes from the queue itself, in a delegate or a log handler, cannot wait.
  contextQueue_->async([painter = painter_] { painter->tearDown(); });
  contextQueue_.reset();
}

// ---- Pictures

bool ZelLivePixelBufferFitSizeFilter::passes(std::size_t width, std::size_t height) const {
  return toTwoDecimals(static_cast<float>(width) / static_cast<float>(height)) == videoRatio_;
}

bool ZelLivePixelBufferFitSizeFilter::draws(const PixelBuffer& pixelBuffer) {
  return pixelBuffer.format() == PixelFormat::BGRA ||
         (pixelBuffer.format() == PixelFormat::BiPlanarFullRange && pixelBuffer.colorMatrix() != ColorMatrix::BT709);
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
  const bool passing = passes(width, height);
  if (passing && sampled(1000)) {
    ZEL_LOG_INFO("Live: videoSize is same to pixelSize 1/1000");
  }
  switch (admit(passing, timeStamp)) {
    case Admission::PassNow:
      if (const auto target = delegate()) {
        target->filterPixelBuffer(*this, std::move(pixelBuffer), timeStamp);
      }
      return;
    case Admission::Dropped:
      return;
    case Admission::Queued:
      break;
  }
  contextQueue_->async(
      [weak = weak_from_this(), painter = painter_, picture = std::move(pixelBuffer), timeStamp, passing]() mutable {
        if (weak.expired()) {
          return;
        }
        // Nothing here owns the renderer while it draws, so that its end waits for the drawing.
        auto output = passing ? picture : painter->render(*picture);
        picture.reset();
        if (const auto self = weak.lock()) {
          self->finishPicture(std::move(output), timeStamp);
        }
      });
}

ZelLivePixelBufferFitSizeFilter::Admission ZelLivePixelBufferFitSizeFilter::admit(bool passes, double timeStamp) {
  std::uint64_t before = 0;
  {
    const std::lock_guard lock(mutex_);
    if (passes && inFlight_.empty()) {
      return Admission::PassNow;
    }
    if (inFlight_.size() < kMostWaiting) {
      inFlight_.push_back(wholeMilliseconds(timeStamp));
      return Admission::Queued;
    }
    before = dropped_++;
  }
  if (before % kDropsPerWarning == 0) {
    ZEL_LOG_WARNING("Live: the fit-size renderer is too slow, pictures dropped: %llu",
                    static_cast<unsigned long long>(before + 1));
  }
  return Admission::Dropped;
}

void ZelLivePixelBufferFitSizeFilter::finishPicture(std::shared_ptr<PixelBuffer> pixelBuffer, double timeStamp) {
  const auto target = delegate();
  if (target && pixelBuffer) {
    target->filterPixelBuffer(*this, std::move(pixelBuffer), timeStamp);
  }
  {
    const std::lock_guard lock(mutex_);
    inFlight_.erase(std::ranges::find(inFlight_, wholeMilliseconds(timeStamp)));
  }
  if (target) {
    target->filterDidFinishPicture(*this);
  }
}

std::optional<std::uint64_t> ZelLivePixelBufferFitSizeFilter::oldestPicture() const {
  const std::lock_guard lock(mutex_);
  return inFlight_.empty() ? std::nullopt : std::optional(*std::ranges::min_element(inFlight_));
}

std::uint64_t ZelLivePixelBufferFitSizeFilter::droppedPictures() const {
  const std::lock_guard lock(mutex_);
  return dropped_;
}

// ---- Orientation

void ZelLivePixelBufferFitSizeFilter::orientationChange() {
  const std::int64_t orientation = platform_->device->deviceOrientation();
  std::int64_t last = 0;
  {
    const std::lock_guard lock(mutex_);
    last = lastDeviceOrientation_;
    const bool turned = (isUpright(last) && isLying(orientation)) || (isLying(last) && isUpright(orientation));
    if (turned || (last == 0 && !isFlat(orientation))) {
      lastDeviceOrientation_ = orientation;
      isExchange_ = isExchange_ != turned;
    }
  }
  ZEL_LOG_INFO("========%ld %ld", static_cast<long>(orientation), static_cast<long>(last));
}

bool ZelLivePixelBufferFitSizeFilter::isExchange() const {
  const std::lock_guard lock(mutex_);
  return isExchange_;
}

// ---- Properties

std::shared_ptr<ZelLivePixelBufferFitSizeDelegate> ZelLivePixelBufferFitSizeFilter::delegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void ZelLivePixelBufferFitSizeFilter::setDelegate(std::weak_ptr<ZelLivePixelBufferFitSizeDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<GraphicsContext> ZelLivePixelBufferFitSizeFilter::context() const { return painter_->context(); }

void ZelLivePixelBufferFitSizeFilter::setContext(std::shared_ptr<GraphicsContext> context) {
  contextQueue_->async([painter = painter_, next = std::move(context)] { painter->setContext(next); });
}

}  // namespace zellive
