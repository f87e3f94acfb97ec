#include "apps/zellive/StreamSettings.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace zellive::tool {
namespace {

constexpr std::uint64_t secondsBetweenKeyFrames = 2;

/// Moves the quality's bit rate and, by the same ratio, the bounds of adaptive bit rate.
void applyBitRate(ZelLiveVideoConfiguration& video, std::uint64_t bitRate) {
  const double ratio = static_cast<double>(bitRate) / static_cast<double>(video.videoBitRate());
  const auto highest = std::llround(static_cast<double>(video.videoMaxBitRate()) * ratio);
  const auto lowest = std::llround(static_cast<double>(video.videoMinBitRate()) * ratio);
  video.setVideoBitRate(bitRate);
  video.setVideoMaxBitRate(static_cast<std::uint64_t>(highest));
  video.setVideoMinBitRate(static_cast<std::uint64_t>(lowest));
}

std::uint64_t frameRateOf(const PublishOptions& options, std::uint64_t qualityRate, double sourceRate) {
  if (options.framesPerSecond) {
    return *options.framesPerSecond;
  }
  const auto source = static_cast<std::uint64_t>(std::max(1LL, std::llround(sourceRate)));
  return sourceRate > 0 ? std::min(qualityRate, source) : qualityRate;
}

void applyRates(ZelLiveVideoConfiguration& video, const PublishOptions& options, double sourceRate) {
  video.setVideoFrameRate(frameRateOf(options, video.videoFrameRate(), sourceRate));
  video.setVideoMaxKeyFrameInterval(video.videoFrameRate() * secondsBetweenKeyFrames);
  if (options.bitRate) {
    applyBitRate(video, *options.bitRate);
  }
}

bool hasSize(const std::vector<CaptureDeviceFormat>& formats, std::size_t width, std::size_t height) {
  return std::ranges::any_of(formats,
                             [=](const auto& format) { return format.width == width && format.height == height; });
}

/// The capture preset, at most `highest`, whose size the camera has; where it has none of them, one of the shape that
/// it has.
std::uint64_t presetFor(const std::vector<CaptureDeviceFormat>& formats, std::uint64_t highest) {
  const std::array<std::pair<std::uint64_t, PictureSize>, 5> presets{{
      {ZelLiveCaptureSessionPreset3840x2160, {3840, 2160}},
      {ZelLiveCaptureSessionPreset2560x1440, {1920, 1080}},  // Cameras have no such preset: it is enlarged.
      {ZelLiveCaptureSessionPreset1920x1080, {1920, 1080}},
      {ZelLiveCaptureSessionPreset1280x720, {1280, 720}},
      {ZelLiveCaptureSessionPreset640x480, {640, 480}},
  }};
  for (const auto& [preset, size] : presets) {
    if (preset <= highest &&
        hasSize(formats, static_cast<std::size_t>(size.width), static_cast<std::size_t>(size.height))) {
      return preset;
    }
  }
  const bool isWide =
      std::ranges::any_of(formats, [](const auto& format) { return format.width * 9 == format.height * 16; });
  const bool isFourByThree =
      std::ranges::any_of(formats, [](const auto& format) { return format.width * 3 == format.height * 4; });
  return isFourByThree && !isWide ? std::uint64_t{ZelLiveCaptureSessionPreset640x480} : highest;
}

}  // namespace

PictureSize qualitySize(std::uint64_t quality) {
  const Size size = ZelLiveVideoConfiguration(quality, captureType, 1).videoSize();
  const int a = static_cast<int>(size.width);
  const int b = static_cast<int>(size.height);
  return {std::max(a, b), std::min(a, b)};
}

std::shared_ptr<ZelLiveVideoConfiguration> makeVideoConfiguration(const PublishOptions& options, PictureSize sourceSize,
                                                                  double sourceRate) {
  const PictureSize size = options.size ? *options.size : fitSize(sourceSize, qualitySize(options.quality));
  auto video = std::make_shared<ZelLiveVideoConfiguration>(options.quality, captureType, 1);
  video->setVideoSize({static_cast<double>(size.width), static_cast<double>(size.height)});
  applyRates(*video, options, sourceRate);
  return video;
}

std::shared_ptr<ZelLiveVideoConfiguration> makeCameraConfiguration(const PublishOptions& options, std::int64_t type,
                                                                   const std::vector<CaptureDeviceFormat>& formats) {
  auto video = std::make_shared<ZelLiveVideoConfiguration>(options.quality, type, options.orientation);
  video->setSessionPreset(presetFor(formats, video->sessionPreset()));
  const Size size = video->captureOutVideoSize();
  const PictureSize wanted =
      options.size.value_or(PictureSize{static_cast<int>(size.width), static_cast<int>(size.height)});
  video->setVideoSize({static_cast<double>(wanted.width), static_cast<double>(wanted.height)});
  double fastest = 0;
  for (const auto& format : formats) {
    fastest = std::max(fastest, format.maxFrameRate);
  }
  applyRates(*video, options, fastest);
  return video;
}

}  // namespace zellive::tool
