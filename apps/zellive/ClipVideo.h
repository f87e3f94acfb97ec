#pragma once

#include <memory>
#include <string>

#include "apps/zellive/ClipDemuxer.h"
#include "apps/zellive/DecoderMemory.h"

namespace zellive::tool {

/// The picture track of a file: decodes ahead by one picture, and converts only those that are asked for.
class ClipVideo {
 public:
  [[nodiscard]] static std::unique_ptr<ClipVideo> open(ClipDemuxer& demuxer, std::string& error);

  /// Upright and with square pixels.
  [[nodiscard]] PictureSize pictureSize() const { return shown_; }
  [[nodiscard]] double frameRate() const { return frameRate_; }
  /// The picture nearest to `time`; the last one after the end. Null when there has been none at all.
  [[nodiscard]] std::shared_ptr<PixelBuffer> pictureAt(MediaTime time);
  [[nodiscard]] const std::string& failure() const { return failure_; }

 private:
  explicit ClipVideo(ClipDemuxer& demuxer) : demuxer_(demuxer) {}
  void measure(AVStream& stream);
  void decodeNext();
  void stamp();
  [[nodiscard]] std::shared_ptr<PixelBuffer> toPicture(const AVFrame& frame);
  [[nodiscard]] std::shared_ptr<PixelBuffer> copy(const AVFrame& frame);
  [[nodiscard]] bool isPlain(const AVFrame& frame) const;
  [[nodiscard]] bool scale(const AVFrame& frame, PixelBuffer& target);
  void turn(const std::uint8_t* const* planes, const int* strides, PixelBuffer& target) const;

  ClipDemuxer& demuxer_;
  DecoderMemory memory_;
  DecoderPtr decoder_;
  double frameRate_ = 0;
  MediaTime frameInterval_{};
  PictureSize coded_;  ///< With square pixels, before turning.
  PictureSize shown_;
  int quarterTurns_ = 0;  ///< Clockwise, to be made upright.

  FramePtr current_;  ///< Due, not yet converted; empty when picture_ shows it already.
  FramePtr next_;     ///< Decoded ahead.
  bool hasCurrent_ = false;
  bool hasNext_ = false;
  bool ended_ = false;
  bool lastPass_ = false;
  MediaTime nextTime_{};
  MediaTime origin_{};
  std::uint64_t decoded_ = 0;
  std::shared_ptr<PixelBufferPool> pool_;
  std::shared_ptr<PixelBuffer> scratch_;
  std::shared_ptr<PixelBuffer> picture_;
  ScalerPtr scaler_;
  std::string failure_;
};

}  // namespace zellive::tool
