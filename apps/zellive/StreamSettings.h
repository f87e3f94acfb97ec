#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "apps/zellive/CommandLine.h"
#include "apps/zellive/PictureSize.h"
#include "zellive/platform/CaptureSession.h"
#include "zellive/session/ZelLiveCaptureType.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive::tool {

/// The application pushes everything itself.
inline constexpr std::int64_t captureType = ZelLiveInputAudio | ZelLiveInputVideo;

/// The size of a quality, lying down.
[[nodiscard]] PictureSize qualitySize(std::uint64_t quality);

/// What to stream pictures of `sourceSize` at `sourceRate` pictures per second (0: any) with: a size of their own shape
/// unless another one is asked for.
[[nodiscard]] std::shared_ptr<ZelLiveVideoConfiguration> makeVideoConfiguration(const PublishOptions& options,
                                                                                PictureSize sourceSize,
                                                                                double sourceRate);

/// What to stream a camera of these formats with: at the largest of the sizes up to the quality's that it has, so that
/// nothing is stretched.
[[nodiscard]] std::shared_ptr<ZelLiveVideoConfiguration> makeCameraConfiguration(
    const PublishOptions& options, std::int64_t type, const std::vector<CaptureDeviceFormat>& formats);

}  // namespace zellive::tool
