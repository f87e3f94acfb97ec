#include "apps/zellive/StreamSettings.h"

#include <algorithm>
#include <cmath>

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
  video->setVideoFrameRate(frameRateOf(options, video->videoFrameRate(), sourceRate));
  video->setVideoMaxKeyFrameInterval(video->videoFrameRate() * secondsBetweenKeyFrames);
  if (options.bitRate) {
    applyBitRate(*video, *options.bitRate);
  }
  return video;
}

}  // namespace zellive::tool
