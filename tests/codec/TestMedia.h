#pragma once

#include <memory>
#include <span>
#include <vector>

#include "zellive/platform/VideoCompressionSession.h"
#include "zellive/platform/linux/FfmpegSupport.h"

namespace zellive::test {

using Bytes = std::vector<std::uint8_t>;
inline Bytes bytesOf(const Data& data) { return {data.span().begin(), data.span().end()}; }

/// A still scene of smooth colours by the formulas of ITU-R BT.601, in the given format.
std::shared_ptr<PixelBuffer> colourScene(PixelFormat format, int width, int height);
/// How far a decoded picture is from that scene drawn at `width` × `height`: the mean difference of its worst component
/// in steps of 8 bits.
double differenceFromScene(const AVFrame& frame, int width, int height);
/// Picture `index` of a restless scene, costly at any bit rate.
std::shared_ptr<PixelBuffer> restlessScene(int width, int height, int index);

/// The type of each NAL unit of a sample.
std::vector<int> nalTypes(const VideoSample& sample);

/// Decodes packet by packet, as a strict viewer would.
class Decoder {
 public:
  explicit Decoder(AVCodecID id, std::span<const std::uint8_t> extradata = {});
  /// What one packet gives at once; null when the decoder gives nothing or complains.
  ffmpeg::FramePtr decode(std::span<const std::uint8_t> packet);
  ffmpeg::FramePtr decode(const VideoSample& sample);
  [[nodiscard]] const AVCodecContext& context() const { return *context_; }

 private:
  ffmpeg::CodecContextPtr context_;
};

}  // namespace zellive::test
