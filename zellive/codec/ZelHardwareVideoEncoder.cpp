#include "zellive/codec/ZelHardwareVideoEncoder.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

constexpr std::size_t kLengthSize = 4;
/// What a submission without a session answers.
constexpr int kNoSession = -12903;
/// A sample that lacks what it should carry.
constexpr int kMissing = -12731;
constexpr std::uint64_t kDropsPerWarning = 100;

/// Truncates; what no 32-bit integer holds becomes 0, which no encoder takes.
std::int32_t pixels(double side) {
  const bool fits = side > std::numeric_limits<std::int32_t>::min() && side < std::numeric_limits<std::int32_t>::max();
  return fits ? static_cast<std::int32_t>(side) : 0;
}

std::int64_t signedRate(std::uint64_t rate) {
  return static_cast<std::int64_t>(std::min<std::uint64_t>(rate, std::numeric_limits<std::int64_t>::max()));
}

/// At most one and a half times the average in any one second, in bytes.
double dataRateLimit(std::int64_t bitRate) { return static_cast<double>(bitRate) * 1.5 * 0.125; }

std::size_t readLength(const std::uint8_t* bytes) {
  return std::size_t{bytes[0]} << 24 | std::size_t{bytes[1]} << 16 | std::size_t{bytes[2]} << 8 | bytes[3];
}

VideoCompressionSettings settingsOf(const ZelLiveVideoConfiguration& configuration,
                                    const VideoEncoderOptions& options) {
  const Size size = configuration.videoSize();
  const std::uint64_t frameRate = configuration.videoFrameRate();
  VideoCompressionSettings settings;
  settings.width = pixels(size.width);
  settings.height = pixels(size.height);
  settings.maxKeyFrameInterval = configuration.videoMaxKeyFrameInterval();
  settings.maxKeyFrameIntervalDuration = frameRate == 0 ? 0 : configuration.videoMaxKeyFrameInterval() / frameRate;
  settings.expectedFrameRate = frameRate;
  settings.averageBitRate = signedRate(configuration.videoBitRate());
  settings.dataRateLimitBytes = dataRateLimit(settings.averageBitRate);
  settings.dataRateLimitSeconds = 1;
  settings.realTime = true;
  settings.options = options;
  return settings;
}

}  // namespace

std::shared_ptr<ZelHardwareVideoEncoder> ZelHardwareVideoEncoder::create(
    std::shared_ptr<ZelLiveVideoConfiguration> configuration, std::shared_ptr<const Platform> platform,
    VideoEncoderOptions options) {
  if (!configuration) {
    return nullptr;
  }
  std::shared_ptr<ZelHardwareVideoEncoder> encoder(
      new ZelHardwareVideoEncoder(std::move(configuration), std::move(platform), std::move(options)));
  encoder->createCompressionSession();
  return encoder;
}

ZelHardwareVideoEncoder::ZelHardwareVideoEncoder(std::shared_ptr<ZelLiveVideoConfiguration> configuration,
                                                 std::shared_ptr<const Platform> platform, VideoEncoderOptions options)
    : configuration_(std::move(configuration)),
      platform_(std::move(platform)),
      options_(std::move(options)),
      mostWaiting_(static_cast<std::int64_t>(std::clamp<std::uint64_t>(configuration_->videoFrameRate() / 4, 4, 30))),
      encodeQueue_(platform_->queues->makeSerialQueue("com.morrowfen.videoEncode.queue")) {}

ZelHardwareVideoEncoder::~ZelHardwareVideoEncoder() {
  ZEL_LOG_INFO("Live: dealloc %s", describeObject("ZelHardwareVideoEncoder", this).c_str());
}

void ZelHardwareVideoEncoder::createCompressionSession() {
  ZEL_LOG_INFO("Live: createCompressionSession");
  int status = 0;
  std::shared_ptr<VideoCompressionSession> session = platform_->videoCompression->create(
      settingsOf(*configuration_, options_),
      [weak = weak_from_this()](std::uint64_t reference, int outputStatus, const VideoSample* sample) {
        if (const auto self = weak.lock()) {
          self->videoCompresssionOutputCallBack(reference, outputStatus, sample);
        }
      },
      status);
  if (!session) {
    ZEL_LOG_ERROR("Live: VTCompressionSessionCreate() error: %d", status);
    return;
  }
  const std::lock_guard lock(mutex_);
  compressionSession_ = std::move(session);
  currentVideoBitRate_ = configuration_->videoBitRate();
}

void ZelHardwareVideoEncoder::invalidateCompressionSession() {
  ZEL_LOG_INFO("Live: invalidateCompressionSession");
  std::shared_ptr<VideoCompressionSession> dropped;  // Ends after the lock.
  const std::lock_guard lock(mutex_);
  dropped.swap(compressionSession_);
}

std::shared_ptr<VideoCompressionSession> ZelHardwareVideoEncoder::compressionSession() const {
  const std::lock_guard lock(mutex_);
  return compressionSession_;
}

void ZelHardwareVideoEncoder::encodeVideoData(std::shared_ptr<PixelBuffer> pixelBuffer, std::uint64_t timeStamp) {
  if (!pixelBuffer || isBackGround_) {
    return;
  }
  if (!pixelBuffer->shareable()) {
    ZEL_LOG_ERROR("Live: pixelbuffer don't contain iosurface");
    return;
  }
  // Late pictures are worth nothing to a live stream, and each holds its memory.
  if (++waiting_ > mostWaiting_) {
    --waiting_;
    if (const std::uint64_t before = dropped_++; before % kDropsPerWarning == 0) {
      ZEL_LOG_WARNING("Live: the video encoder is too slow, pictures dropped: %llu",
                      static_cast<unsigned long long>(before + 1));
    }
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    inFlight_.push(timeStamp);
  }
  encodeQueue_->async([weak = weak_from_this(), picture = std::move(pixelBuffer), timeStamp] {
    if (const auto self = weak.lock()) {
      --self->waiting_;
      self->encode(picture, timeStamp);
      self->finishPicture();
    }
  });
}

void ZelHardwareVideoEncoder::encode(const std::shared_ptr<PixelBuffer>& pixelBuffer, std::uint64_t timeStamp) {
  if (!compressionSession()) {
    createCompressionSession();
  }
  const auto session = compressionSession();
  const VideoFrameProperties properties = nextFrameProperties();
  const std::int64_t presentationTime = ++frameCount_;
  const int status = session ? session->encodeFrame(pixelBuffer, presentationTime, properties, timeStamp) : kNoSession;
  if (status != 0) {
    ZEL_LOG_ERROR("Live: VTCompressionSessionEncodeFrame() error: %d", status);
    needKeyFrame_ = true;
    invalidateCompressionSession();
    return;
  }
  hasEncoded_ = true;
}

void ZelHardwareVideoEncoder::finishPicture() {
  {
    const std::lock_guard lock(mutex_);
    inFlight_.pop();
  }
  if (const auto target = delegate()) {
    target->videoEncoderDidFinishPicture(*this);
  }
}

std::optional<std::uint64_t> ZelHardwareVideoEncoder::oldestPicture() const {
  const std::lock_guard lock(mutex_);
  return inFlight_.empty() ? std::nullopt : std::optional(inFlight_.front());
}

VideoFrameProperties ZelHardwareVideoEncoder::nextFrameProperties() {
  const auto interval = static_cast<std::int32_t>(configuration_->videoMaxKeyFrameInterval());
  const std::int64_t count = frameCount_;
  const bool due = interval == 0 ? count == 0 : count % interval == 0;
  const bool needed = needKeyFrame_.exchange(false);
  return {.forceKeyFrame = due || needed, .leadingSei = needed || !hasEncoded_};
}

void ZelHardwareVideoEncoder::videoCompresssionOutputCallBack(std::uint64_t reference, int status,
                                                              const VideoSample* sample) {
  if (sample == nullptr) {
    ZEL_LOG_ERROR("Live: encoder samplebuffer is nil");
    return;
  }
  if (status != 0) {
    ZEL_LOG_ERROR("Live: VideoCompresssionOutputCallBack error: %d", status);
    return;
  }
  ZelLiveVideoFrame pattern;
  pattern.timestamp = reference;
  pattern.isKeyFrame = sample->sync;
  captureParameterSets(*sample, pattern);
  if (!sample->data) {
    ZEL_LOG_ERROR("Live: CMBlockBufferGetDataPointer() error: %d", kMissing);
    return;
  }
  deliverNalUnits(sample->data, pattern);
}

void ZelHardwareVideoEncoder::captureParameterSets(const VideoSample& sample, ZelLiveVideoFrame& frame) {
  const std::lock_guard lock(mutex_);
  if (sample.sync && !sps_) {
    if (!sample.sps) {
      ZEL_LOG_ERROR("Live: Video encoder get sps error: %d", kMissing);
    } else if (!sample.pps) {
      ZEL_LOG_ERROR("Live: Video encoder get pps error: %d", kMissing);
    } else {
      sps_ = sample.sps;
      pps_ = sample.pps;
    }
  }
  frame.sps = sps_;
  frame.pps = pps_;
}

void ZelHardwareVideoEncoder::deliverNalUnits(const Data& data, const ZelLiveVideoFrame& pattern) {
  const auto target = delegate();
  const std::size_t total = data.length();
  std::size_t offset = 0;
  while (total - offset > kLengthSize) {
    const std::size_t length = readLength(data.bytes() + offset);
    offset += kLengthSize;
    if (length > total - offset) {
      ZEL_LOG_ERROR("Live: the encoder gave a NAL unit of %zu bytes where %zu are left", length, total - offset);
      return;
    }
    if (target && length > 0) {
      auto frame = std::make_shared<ZelLiveVideoFrame>(pattern);
      frame->data = data.subdata(offset, length);
      target->videoEncoderVideoFrame(*this, std::move(frame));
    }
    offset += length;
  }
}

void ZelHardwareVideoEncoder::setVideoBitRate(std::int64_t bitRate) {
  if (isBackGround_) {
    return;
  }
  if (const auto session = compressionSession()) {
    session->setBitRate(bitRate, dataRateLimit(bitRate), 1);
  }
  currentVideoBitRate_ = static_cast<std::uint64_t>(std::max<std::int64_t>(bitRate, 0));
}

void ZelHardwareVideoEncoder::stopEncoder() {
  encodeQueue_->async([weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      if (const auto session = self->compressionSession()) {
        session->completeFrames();
      }
    }
  });
}

std::shared_ptr<ZelVideoEncodingDelegate> ZelHardwareVideoEncoder::delegate() const {
  const std::lock_guard lock(mutex_);
  return h264Delegate_.lock();
}

void ZelHardwareVideoEncoder::setDelegate(std::weak_ptr<ZelVideoEncodingDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  h264Delegate_ = std::move(delegate);
}

void ZelHardwareVideoEncoder::willEnterForeground() noexcept {
  needKeyFrame_ = true;
  isBackGround_ = false;
}

}  // namespace zellive
