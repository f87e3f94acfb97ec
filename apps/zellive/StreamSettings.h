#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "apps/zellive/CommandLine.h"
#include "apps/zellive/PictureSize.h"
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

}  // namespace zellive::tool
