#include "zellive/platform/linux/PictureConversion.h"

#include <libyuv.h>

#include <algorithm>
#include <limits>

#include "zellive/platform/linux/ColourChange.h"

namespace zellive {
namespace {

constexpr std::size_t kLargestSide = 16384;

int stride(const PixelBuffer::Plane& plane) { return static_cast<int>(plane.bytesPerRow); }

/// `frame` gives the size; the picture is at least as large. BGRA comes out in the range that is asked for.
void toPlanar(const PixelBuffer& picture, AVFrame& frame, bool fullRange) {
  const auto& first = picture.plane(0);
  const auto& second = picture.plane(1);
  const auto& third = picture.plane(2);
  switch (picture.format()) {
    case PixelFormat::BGRA: {
      const auto convert = fullRange ? libyuv::ARGBToJ420 : libyuv::ARGBToI420;
      convert(first.base, stride(first), frame.data[0], frame.linesize[0], frame.data[1], frame.linesize[1],
              frame.data[2], frame.linesize[2], frame.width, frame.height);
      return;
    }
    case PixelFormat::Planar:
      libyuv::I420Copy(first.base, stride(first), second.base, stride(second), third.base, stride(third), frame.data[0],
                       frame.linesize[0], frame.data[1], frame.linesize[1], frame.data[2], frame.linesize[2],
                       frame.width, frame.height);
      return;
    case PixelFormat::BiPlanarFullRange:
    case PixelFormat::BiPlanarVideoRange:
      libyuv::NV12ToI420(first.base, stride(first), second.base, stride(second), frame.data[0], frame.linesize[0],
                         frame.data[1], frame.linesize[1], frame.data[2], frame.linesize[2], frame.width, frame.height);
      return;
  }
}

void releasePicture(void* opaque, std::uint8_t* /*data*/) { delete static_cast<std::shared_ptr<PixelBuffer>*>(opaque); }

}  // namespace

PictureColour colourOf(const PixelBuffer& picture) {
  if (picture.format() == PixelFormat::BGRA) {
    return {false, ColorMatrix::BT601};
  }
  return {picture.format() == PixelFormat::BiPlanarFullRange, picture.colorMatrix()};
}

AVPixelFormat nearestLayout(PixelFormat format) {
  const bool biPlanar = format == PixelFormat::BiPlanarFullRange || format == PixelFormat::BiPlanarVideoRange;
  return biPlanar ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P;
}

bool PictureConverter::accepts(const PixelBuffer& picture) {
  if (picture.width() == 0 || picture.height() == 0 || picture.width() > kLargestSide ||
      picture.height() > kLargestSide) {
    return false;
  }
  for (std::size_t index = 0; index < picture.planeCount(); ++index) {
    const auto& plane = picture.plane(index);
    if (plane.base == nullptr || plane.bytesPerRow > std::numeric_limits<int>::max()) {
      return false;
    }
  }
  return true;
}

AVFrame* PictureConverter::convert(const std::shared_ptr<PixelBuffer>& picture) {
  const auto width = static_cast<int>(picture->width());
  const auto height = static_cast<int>(picture->height());
  const bool scales = (width != target_.width || height != target_.height) &&
                      (width != target_.croppedWidth || height != target_.croppedHeight);
  const bool rgb = picture->format() == PixelFormat::BGRA;
  const auto colour = colourOf(*picture);
  const bool sameRange = rgb || colour.fullRange == target_.colour.fullRange;
  const bool sameMatrix = colour.matrix == target_.colour.matrix || colour.matrix == ColorMatrix::Unspecified ||
                          target_.colour.matrix == ColorMatrix::Unspecified;
  if (!scales && !rgb && sameRange && sameMatrix && nearestLayout(picture->format()) == target_.layout) {
    return wrap(picture);
  }
  AVFrame* frame = planar(*picture, scales);
  if (frame != nullptr && !sameRange) {
    changeRange(*frame, target_.colour.fullRange);
  }
  if (frame != nullptr && !sameMatrix) {
    changeMatrix(*frame, target_.colour.fullRange, target_.colour.matrix == ColorMatrix::BT709);
  }
  return frame != nullptr && target_.layout == AV_PIX_FMT_NV12 ? interleave(*frame) : frame;
}

void PictureConverter::release() {
  if (wrapped_) {
    av_frame_unref(wrapped_.get());
  }
}

bool PictureConverter::reuse(ffmpeg::FramePtr& frame, int width, int height, AVPixelFormat layout) const {
  if (frame && frame->width == width && frame->height == height && av_frame_is_writable(frame.get()) == 1) {
    return true;
  }
  frame.reset(av_frame_alloc());
  if (!frame) {
    return false;
  }
  frame->width = width;
  frame->height = height;
  frame->format = layout;
  if (av_frame_get_buffer(frame.get(), 0) != 0) {
    frame.reset();
    return false;
  }
  return true;
}

AVFrame* PictureConverter::wrap(const std::shared_ptr<PixelBuffer>& picture) {
  if (!wrapped_) {
    wrapped_.reset(av_frame_alloc());
  }
  if (!wrapped_) {
    return nullptr;
  }
  AVFrame& frame = *wrapped_;
  av_frame_unref(&frame);
  auto owner = std::make_unique<std::shared_ptr<PixelBuffer>>(picture);
  const auto& first = picture->plane(0);
  frame.buf[0] = av_buffer_create(first.base, first.bytesPerRow * first.height, releasePicture, owner.get(),
                                  AV_BUFFER_FLAG_READONLY);
  if (frame.buf[0] == nullptr) {
    return nullptr;
  }
  owner.release();  // NOLINT(bugprone-unused-return-value): releasePicture deletes it.
  frame.width = target_.width;
  frame.height = target_.height;
  frame.format = target_.layout;
  for (std::size_t index = 0; index < picture->planeCount(); ++index) {
    frame.data[index] = picture->plane(index).base;
    frame.linesize[index] = stride(picture->plane(index));
  }
  return &frame;
}

AVFrame* PictureConverter::planar(const PixelBuffer& picture, bool scales) {
  if (!reuse(planar_, target_.width, target_.height, AV_PIX_FMT_YUV420P)) {
    return nullptr;
  }
  if (!scales) {
    toPlanar(picture, *planar_, target_.colour.fullRange);
    return planar_.get();
  }
  if (!reuse(unscaled_, static_cast<int>(picture.width()), static_cast<int>(picture.height()), AV_PIX_FMT_YUV420P)) {
    return nullptr;
  }
  const AVFrame& from = *unscaled_;
  const AVFrame& to = *planar_;
  toPlanar(picture, *unscaled_, target_.colour.fullRange);
  const int status =
      libyuv::I420Scale(from.data[0], from.linesize[0], from.data[1], from.linesize[1], from.data[2], from.linesize[2],
                        from.width, from.height, to.data[0], to.linesize[0], to.data[1], to.linesize[1], to.data[2],
                        to.linesize[2], to.width, to.height, libyuv::kFilterBox);
  return status == 0 ? planar_.get() : nullptr;
}

AVFrame* PictureConverter::interleave(const AVFrame& planar) {
  if (!reuse(interleaved_, planar.width, planar.height, AV_PIX_FMT_NV12)) {
    return nullptr;
  }
  const AVFrame& to = *interleaved_;
  libyuv::I420ToNV12(planar.data[0], planar.linesize[0], planar.data[1], planar.linesize[1], planar.data[2],
                     planar.linesize[2], to.data[0], to.linesize[0], to.data[1], to.linesize[1], to.width, to.height);
  return interleaved_.get();
}

}  // namespace zellive
