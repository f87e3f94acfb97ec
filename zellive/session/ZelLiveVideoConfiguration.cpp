#include "zellive/session/ZelLiveVideoConfiguration.h"

#include <sys/types.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <utility>

#include "zellive/platform/Device.h"
#include "zellive/platform/KeyedArchive.h"
#include "zellive/platform/Platform.h"
#include "zellive/session/FormattedText.h"

namespace zellive {
namespace {

constexpr std::int64_t kPortrait = 1;

struct Row {
  Size size;
  std::uint64_t frameRate, bitRate, maxBitRate, minBitRate, preset;
};

constexpr Row kLow = {{480, 640}, 24, 921600, 1024000, 819200, ZelLiveCaptureSessionPreset640x480};
constexpr Row kMedium = {{720, 1280}, 24, 1536000, 1740800, 1228800, ZelLiveCaptureSessionPreset1280x720};
constexpr Row kHigh = {{1080, 1920}, 30, 3072000, 3276800, 2560000, ZelLiveCaptureSessionPreset1920x1080};
constexpr Row kVeryHigh = {{1440, 2560}, 30, 3584000, 3788800, 3072000, ZelLiveCaptureSessionPreset2560x1440};
constexpr Row kUltra = {{2160, 3840}, 30, 6144000, 6348800, 5632000, ZelLiveCaptureSessionPreset3840x2160};

constexpr const Row& rowOf(std::uint64_t quality) {
  switch (quality) {
    case ZelLiveVideoQualityLow:
      return kLow;
    case ZelLiveVideoQualityHigh:
      return kHigh;
    case ZelLiveVideoQualityVeryHigh:
      return kVeryHigh;
    case ZelLiveVideoQualityUltra:
      return kUltra;
    default:
      return kMedium;
  }
}

struct CameraPreset {
  const char* name;
  Size size;  ///< Portrait.
};

constexpr CameraPreset cameraPresetOf(std::uint64_t preset) {
  switch (preset) {
    case ZelLiveCaptureSessionPreset640x480:
      return {"AVCaptureSessionPreset640x480", {480, 640}};
    case ZelLiveCaptureSessionPreset1920x1080:
      return {"AVCaptureSessionPreset1920x1080", {1080, 1920}};
    case ZelLiveCaptureSessionPreset2560x1440:
      // Cameras have no such preset.
      return {"AVCaptureSessionPreset1920x1080", {1440, 2560}};
    case ZelLiveCaptureSessionPreset3840x2160:
      return {"AVCaptureSessionPreset3840x2160", {2160, 3840}};
    default:
      return {"AVCaptureSessionPreset1280x720", {720, 1280}};
  }
}

constexpr Size swapped(Size size) { return {size.height, size.width}; }

bool isSideways(std::int64_t orientation) { return orientation == 3 || orientation == 4; }

bool isUsable(Size size) {
  return std::isfinite(size.width) && std::isfinite(size.height) && size.width > 0 && size.height > 0;
}

double upToMultipleOfFour(double value) { return std::ceil(std::ceil(value) / 4) * 4; }

double upToWholeThenDownToEven(double value) { return std::floor(std::ceil(value) / 2) * 2; }

/// The screen's shape, its shorter side scaled to the shorter side of `size`.
Size screenShaped(Size screen, Size size) {
  if (!isUsable(screen)) {
    return size;
  }
  const double ratio = std::min(screen.width, screen.height) / std::min(size.width, size.height);
  return {upToMultipleOfFour(screen.width / ratio), upToMultipleOfFour(screen.height / ratio)};
}

std::string textOf(Size size) { return formattedText("{%.17g, %.17g}", size.width, size.height); }

}  // namespace

// ---- Making

ZelLiveVideoConfiguration::Ptr ZelLiveVideoConfiguration::defaultConfiguration() {
  return defaultConfigurationForQuality(ZelLiveVideoQualityMedium);
}

ZelLiveVideoConfiguration::Ptr ZelLiveVideoConfiguration::defaultConfigurationForQuality(std::uint64_t quality) {
  return defaultConfigurationForQuality(quality, ZelLiveCaptureVideo);
}

ZelLiveVideoConfiguration::Ptr ZelLiveVideoConfiguration::defaultConfigurationForQuality(std::uint64_t quality,
                                                                                         std::int64_t captureType) {
  return defaultConfigurationForQuality(quality, captureType, kPortrait);
}

ZelLiveVideoConfiguration::Ptr ZelLiveVideoConfiguration::defaultConfigurationForQuality(
    std::uint64_t quality, std::int64_t captureType, std::int64_t outputImageOrienration) {
  return std::make_shared<ZelLiveVideoConfiguration>(quality, captureType, outputImageOrienration);
}

ZelLiveVideoConfiguration::ZelLiveVideoConfiguration(std::shared_ptr<Device> device) : device_(std::move(device)) {
  if (!device_) {
    device_ = defaultPlatform()->device;
  }
}

ZelLiveVideoConfiguration::ZelLiveVideoConfiguration(std::uint64_t quality, std::int64_t captureType,
                                                     std::int64_t outputImageOrientation,
                                                     std::shared_ptr<Device> device)
    : ZelLiveVideoConfiguration(std::move(device)) {
  quality_ = quality;
  captureType_ = captureType;
  outputImageOrientation_ = outputImageOrientation;
  setupConfig();
}

ZelLiveVideoConfiguration::Ptr ZelLiveVideoConfiguration::copy() const {
  return std::make_shared<ZelLiveVideoConfiguration>(ZelLiveVideoQualityMedium, ZelLiveCaptureVideo, kPortrait,
                                                     device_);
}

void ZelLiveVideoConfiguration::setupConfig() {
  const Row& row = rowOf(quality_);
  videoFrameRate_ = row.frameRate;
  videoBitRate_ = row.bitRate;
  videoMaxBitRate_ = row.maxBitRate;
  videoMinBitRate_ = row.minBitRate;
  sessionPreset_ = row.preset;
  sessionPreset_ = supportSessionPreset(row.preset);
  videoMaxKeyFrameInterval_ = videoFrameRate_ * 2;
  const Size size =
      (captureType_ & ZelLiveReplayVideo) != 0 ? screenShaped(device_->screenBounds(), row.size) : row.size;
  videoSize_ = landscape() && (captureType_ & ZelLiveCaptureVideo) != 0 ? swapped(size) : size;
}

// ---- Camera preset

std::uint64_t ZelLiveVideoConfiguration::supportSessionPreset(std::uint64_t preset) {
  return (captureType_ & ZelLiveCaptureVideo) == 0 ? preset : checkSessionPreset(*device_, preset);
}

// The probe walks down through the presets, and yet the one that was asked for is the one that stays.
std::uint64_t ZelLiveVideoConfiguration::checkSessionPreset(Device& session, std::uint64_t preset) {
  const bool hasLower = preset >= 1 && preset <= 4;
  if (!session.cameraSupportsPreset(avSessionPreset()) && hasLower) {
    setSessionPreset(preset - 1);
    checkSessionPreset(session, sessionPreset_);
  }
  return preset;
}

void ZelLiveVideoConfiguration::setSessionPreset(std::uint64_t preset) {
  sessionPreset_ = preset;
  sessionPreset_ = supportSessionPreset(preset);
}

std::string ZelLiveVideoConfiguration::avSessionPreset() const { return cameraPresetOf(sessionPreset_).name; }

// ---- Guarded values

void ZelLiveVideoConfiguration::setQuality(std::uint64_t quality) {
  quality_ = quality;
  setupConfig();
}

void ZelLiveVideoConfiguration::setVideoMaxFrameRate(std::uint64_t rate) noexcept {
  videoMaxFrameRate_ = rate > videoFrameRate_ ? rate : videoMaxFrameRate_;
}

void ZelLiveVideoConfiguration::setVideoMinFrameRate(std::uint64_t rate) noexcept {
  videoMinFrameRate_ = rate < videoFrameRate_ ? rate : videoMinFrameRate_;
}

void ZelLiveVideoConfiguration::setVideoMaxBitRate(std::uint64_t bitRate) noexcept {
  videoMaxBitRate_ = bitRate > videoBitRate_ ? bitRate : videoMaxBitRate_;
}

void ZelLiveVideoConfiguration::setVideoMinBitRate(std::uint64_t bitRate) noexcept {
  videoMinBitRate_ = bitRate < videoBitRate_ ? bitRate : videoMinBitRate_;
}

// ---- Geometry

bool ZelLiveVideoConfiguration::landscape() const {
  return isSideways((captureType_ & ZelLiveCaptureVideo) != 0 ? outputImageOrientation_ : device_->deviceOrientation());
}

Size ZelLiveVideoConfiguration::captureOutVideoSize() const {
  const Size portrait = cameraPresetOf(sessionPreset_).size;
  return landscape() ? swapped(portrait) : portrait;
}

Size ZelLiveVideoConfiguration::videoSize() const {
  return videoSizeRespectingAspectRatio_ ? aspectRatioVideoSize() : videoSize_;
}

Size ZelLiveVideoConfiguration::aspectRatioVideoSize() const {
  if (!isUsable(videoSize_)) {
    return {};
  }
  const Size shape = captureOutVideoSize();
  const double width = videoSize_.height * shape.width / shape.height;
  const double height = videoSize_.width * shape.height / shape.width;
  // The larger of the two fits would stick out.
  const Size fitted = width < videoSize_.width ? Size{width, videoSize_.height} : Size{videoSize_.width, height};
  return {upToWholeThenDownToEven(fitted.width), upToWholeThenDownToEven(fitted.height)};
}

// ---- Archive, identity, text

void ZelLiveVideoConfiguration::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeSize("videoSize", videoSize_);
  coder.encodeSize("captureOutVideoSize", captureOutVideoSize());
  coder.encodeUnsigned("videoFrameRate", videoFrameRate_);
  coder.encodeUnsigned("videoMaxFrameRate", videoMaxFrameRate_);
  coder.encodeUnsigned("videoMinFrameRate", videoMinFrameRate_);
  coder.encodeUnsigned("videoMaxKeyFrameInterval", videoMaxKeyFrameInterval_);
  coder.encodeUnsigned("videoBitRate", videoBitRate_);
  coder.encodeUnsigned("videoMaxBitRate", videoMaxBitRate_);
  coder.encodeUnsigned("videoMinBitRate", videoMinBitRate_);
  coder.encodeUnsigned("sessionPreset", sessionPreset_);
  coder.encodeSigned("outputImageOrientation", outputImageOrientation_);
  coder.encodeBool("autorotate", autorotate_);
  coder.encodeBool("videoSizeRespectingAspectRatio", videoSizeRespectingAspectRatio_);
  coder.encodeSigned("captureType", captureType_);
}

ZelLiveVideoConfiguration::Ptr ZelLiveVideoConfiguration::initWithCoder(const KeyedUnarchiver& coder,
                                                                        std::shared_ptr<Device> device) {
  Ptr configuration(new ZelLiveVideoConfiguration(std::move(device)));
  const auto number = [&coder](const char* key) { return coder.decodeUnsigned(key).value_or(0); };
  configuration->videoSize_ = coder.decodeSize("videoSize").value_or(Size{});
  configuration->captureOutVideoSize_ = coder.decodeSize("captureOutVideoSize").value_or(Size{});
  configuration->videoFrameRate_ = number("videoFrameRate");
  configuration->videoMaxFrameRate_ = number("videoMaxFrameRate");
  configuration->videoMinFrameRate_ = number("videoMinFrameRate");
  configuration->videoMaxKeyFrameInterval_ = number("videoMaxKeyFrameInterval");
  configuration->videoBitRate_ = number("videoBitRate");
  configuration->videoMaxBitRate_ = number("videoMaxBitRate");
  configuration->videoMinBitRate_ = number("videoMinBitRate");
  configuration->sessionPreset_ = number("sessionPreset");
  configuration->outputImageOrientation_ = coder.decodeSigned("outputImageOrientation").value_or(0);
  configuration->autorotate_ = coder.decodeBool("autorotate").value_or(false);
  configuration->videoSizeRespectingAspectRatio_ = coder.decodeBool("videoSizeRespectingAspectRatio").value_or(false);
  configuration->captureType_ = coder.decodeSigned("captureType").value_or(0);
  return configuration;
}

bool ZelLiveVideoConfiguration::isEqual(const ZelLiveVideoConfiguration& other) const noexcept {
  return this == &other;
}

std::uint64_t ZelLiveVideoConfiguration::hash() const {
  const std::hash<double> real;
  const std::hash<std::uint64_t> number;
  const Size out = captureOutVideoSize();
  return real(videoSize_.width) ^ real(videoSize_.height) ^ real(out.width) ^ real(out.height) ^
         number(videoFrameRate_) ^ number(videoMaxFrameRate_) ^ number(videoMinFrameRate_) ^
         number(videoMaxKeyFrameInterval_) ^ number(videoBitRate_) ^ number(videoMaxBitRate_) ^
         number(videoMinBitRate_) ^ std::hash<std::string>()(avSessionPreset()) ^ number(sessionPreset_) ^
         number(static_cast<std::uint64_t>(outputImageOrientation_)) ^ number(autorotate_ ? 1 : 0) ^
         number(videoSizeRespectingAspectRatio_ ? 1 : 0) ^ number(static_cast<std::uint64_t>(captureType_));
}

std::string ZelLiveVideoConfiguration::description() const {
  const auto signedOf = [](std::uint64_t value) { return static_cast<ssize_t>(value); };
  return formattedText(
      "<ZelLiveVideoConfiguration: %p> videoSize:%s captureOutVideoSize:%s videoSizeRespectingAspectRatio:%d "
      "videoFrameRate:%zi videoMaxFrameRate:%zi videoMinFrameRate:%zi videoMaxKeyframeInterval:%zi videoBitRate:%zi "
      "videoMaxBitRate:%zi videoMinBitRate:%zi avSessionPreset:%s sessionPreset:%zi outputImageOrientation:%zi "
      "autorotate:%d captureType:%zi",
      static_cast<const void*>(this), textOf(videoSize()).c_str(), textOf(captureOutVideoSize()).c_str(),
      videoSizeRespectingAspectRatio_ ? 1 : 0, signedOf(videoFrameRate_), signedOf(videoMaxFrameRate_),
      signedOf(videoMinFrameRate_), signedOf(videoMaxKeyFrameInterval_), signedOf(videoBitRate_),
      signedOf(videoMaxBitRate_), signedOf(videoMinBitRate_), avSessionPreset().c_str(), signedOf(sessionPreset_),
      static_cast<ssize_t>(outputImageOrientation_), autorotate_ ? 1 : 0, static_cast<ssize_t>(captureType_));
}

}  // namespace zellive
