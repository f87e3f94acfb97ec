#pragma once

#include <array>
#include <memory>

#include "zellive/platform/PixelBuffer.h"
#include "zellive/platform/linux/FfmpegSupport.h"

namespace zellive {

/// How a picture's Y, Cb and Cr stand for colours.
struct PictureColour {
  bool fullRange = false;
  ColorMatrix matrix = ColorMatrix::Unspecified;
  friend bool operator==(const PictureColour&, const PictureColour&) = default;
};

/// The colour that the picture has once it is Y, Cb and Cr: BGRA is converted with the matrix of BT.601.
[[nodiscard]] PictureColour colourOf(const PixelBuffer& picture);

/// The layout in which an encoder takes such a picture with the least work.
[[nodiscard]] AVPixelFormat nearestLayout(PixelFormat format);

/// Brings pictures into the shape that an encoder takes. Not thread-safe.
class PictureConverter {
 public:
  struct Target {
    int width = 0;   ///< Even.
    int height = 0;  ///< Even.
    /// A picture of this size is cropped to the target's, one column or row, and not scaled.
    int croppedWidth = 0;
    int croppedHeight = 0;
    AVPixelFormat layout = AV_PIX_FMT_YUV420P;  ///< Or AV_PIX_FMT_NV12.
    PictureColour colour{};
  };
  explicit PictureConverter(const Target& target) : target_(target) {}

  /// The picture in the target's shape: the picture's own memory where nothing is to be done, else memory of the
  /// converter's, which it uses again once nobody else refers to it. Valid until the next call. Null when memory is
  /// short. A matrix that is unspecified, here or there, counts as the other.
  [[nodiscard]] AVFrame* convert(const std::shared_ptr<PixelBuffer>& picture);

  /// Drops the reference to the last picture's memory.
  void release();

  /// Whether the converter can read the picture at all.
  [[nodiscard]] static bool accepts(const PixelBuffer& picture);

 private:
  [[nodiscard]] bool reuse(ffmpeg::FramePtr& frame, int width, int height, AVPixelFormat layout) const;
  [[nodiscard]] AVFrame* wrap(const std::shared_ptr<PixelBuffer>& picture);
  [[nodiscard]] AVFrame* planar(const PixelBuffer& picture, bool scales);
  [[nodiscard]] AVFrame* interleave(const AVFrame& planar);

  Target target_;
  ffmpeg::FramePtr wrapped_;
  ffmpeg::FramePtr unscaled_;
  ffmpeg::FramePtr planar_;
  ffmpeg::FramePtr interleaved_;
};

}  // namespace zellive
