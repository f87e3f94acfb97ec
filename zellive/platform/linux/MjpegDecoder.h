#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "zellive/platform/linux/FfmpegSupport.h"
#include "zellive/platform/linux/RawPicture.h"

namespace zellive {

/// Decodes the pictures of cameras that compress each of them. Of one thread.
class MjpegDecoder {
 public:
  /// The picture, valid until the next call; nothing for what is no picture, or one of a kind that no camera makes.
  [[nodiscard]] std::optional<RawPicture> decode(std::span<const std::uint8_t> data);

 private:
  ffmpeg::CodecContextPtr decoder_;
  ffmpeg::FramePtr frame_;
  ffmpeg::PacketPtr packet_;
  std::vector<std::uint8_t> padded_;
};

}  // namespace zellive
