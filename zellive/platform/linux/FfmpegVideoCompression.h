#pragma once

#include <memory>

#include "zellive/platform/VideoCompressionSession.h"

namespace zellive {

/// H.264 through libavcodec: the first of h264_nvenc, h264_vaapi and libx264 that encodes on this machine, unless the
/// settings name one. Each encoder is tried once, on first need, and the answer kept.
[[nodiscard]] std::shared_ptr<VideoCompressionService> makeFfmpegVideoCompression();

}  // namespace zellive
