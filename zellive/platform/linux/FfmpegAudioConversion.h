#pragma once

#include <memory>

#include "zellive/platform/AudioConverter.h"

namespace zellive {

/// AAC-LC through libavcodec: libfdk_aac where libavcodec has it, else libavcodec's own encoder. One or two channels,
/// at the rates that the encoder knows.
[[nodiscard]] std::shared_ptr<AudioConverterService> makeFfmpegAudioConversion();

}  // namespace zellive
