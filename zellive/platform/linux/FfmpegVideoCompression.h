#pragma once

#include <memory>

#include "zellive/platform/VideoCompressionSession.h"

namespace zellive {

/// H.264 encoders through libavcodec. Never null.
[[nodiscard]] std::shared_ptr<VideoCompressionService> makeFfmpegVideoCompression();

}  // namespace zellive
