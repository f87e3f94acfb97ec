#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "zellive/platform/VideoCompressionSession.h"
#include "zellive/platform/linux/FfmpegSupport.h"

namespace zellive::test {

/// The type of each NAL unit of a sample.
std::vector<int> nalTypes(const VideoSample& sample);

/// Decodes samples one by one, as a viewer would.
class H264Decoder {
 public:
  H264Decoder();
  /// The picture of one sample; null when the decoder gives none or complains.
  ffmpeg::FramePtr decode(const VideoSample& sample);
  [[nodiscard]] const AVCodecContext& context() const { return *context_; }

 private:
  ffmpeg::CodecContextPtr context_;
};

/// Decodes raw access units, one after the other.
class AacDecoder {
 public:
  explicit AacDecoder(std::array<std::uint8_t, 2> audioSpecificConfig);
  /// The unit's 1024 samples of each channel, −1 … 1; empty when the decoder complains.
  std::vector<std::vector<float>> decode(std::span<const std::uint8_t> unit);

 private:
  ffmpeg::CodecContextPtr context_;
};

}  // namespace zellive::test
