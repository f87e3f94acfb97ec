#pragma once

#include <memory>

#include "zellive/platform/AudioConverter.h"

namespace zellive {

/// AAC encoders through libavcodec. Never null.
[[nodiscard]] std::shared_ptr<AudioConverterService> makeFfmpegAudioConversion();

}  // namespace zellive
