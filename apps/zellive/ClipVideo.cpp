#include "apps/zellive/ClipVideo.h"

#include <libyuv.h>

extern "C" {
#include <libavutil/display.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>
#include <cmath>

namespace zellive::tool {
namespace {

/// Phones store pictures as the sensor lies and say in the file how to turn them.
int quarterTurnsOf(const AVStream& stream) {
  const std::uint8_t* matrix = av_stream_get_side_data(&stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
  if (matrix == nullptr) {
    return 0;
  }
  const double angle = av_display_rotation_get(reinterpret_cast<const std::int32_t*>(matrix));
  return std::isnan(angle) ? 0 : static_cast<int>((std::lround(-angle / 90) % 4 + 4) % 4);
}

ColorMatrix matrixOf(const AVFrame& frame) {
  switch (frame.colorspace) {
    case AVCOL_SPC_BT709:
      return ColorMatrix::BT709;
    case AVCOL_SPC_BT470BG:
    case AVCOL_SPC_SMPTE170M:
      return ColorMatrix::BT601;
    default:
      return ColorMatrix::Unspecified;
  }
}

bool isRgb(int format) {
  const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
  return description != nullptr && (description->flags & AV_PIX_FMT_FLAG_RGB) != 0;
}

bool isFullRange(const AVFrame& frame) {
  return frame.color_range == AVCOL_RANGE_JPEG || frame.format == AV_PIX_FMT_YUVJ420P ||
         frame.format == AV_PIX_FMT_YUVJ422P || frame.format == AV_PIX_FMT_YUVJ444P;
}

}  // namespace

std::unique_ptr<ClipVideo> ClipVideo::open(ClipDemuxer& demuxer, std::string& error) {
  std::unique_ptr<ClipVideo> video(new ClipVideo(demuxer));
  AVStream& stream = *demuxer.stream(ClipDemuxer::Track::Video);
  video->decoder_ = openDecoder(stream, error, [&video](AVCodecContext& decoder) { video->memory_.serve(decoder); });
  if (!video->decoder_) {
    error = "cannot decode the pictures: " + error;
    return nullptr;
  }
  video->measure(stream);
  if (video->shown_.width < 2 || video->shown_.height < 2) {
    error = "the file does not tell the size of its pictures";
    return nullptr;
  }
  video->pool_ = PixelBufferPool::create(PixelFormat::Planar, static_cast<std::size_t>(video->shown_.width),
                                         static_cast<std::size_t>(video->shown_.height));
  video->current_.reset(av_frame_alloc());
  video->next_.reset(av_frame_alloc());
  if (!video->pool_ || !video->current_ || !video->next_) {
    error = "pictures of " + toText(video->shown_) + " are too large";
    return nullptr;
  }
  return video;
}

void ClipVideo::measure(AVStream& stream) {
  const AVRational rate = av_guess_frame_rate(demuxer_.format(), &stream, nullptr);
  frameRate_ = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 25;
  frameInterval_ = MediaTime(static_cast<std::int64_t>(1e9 / std::clamp(frameRate_, 1.0, 1000.0)));
  coded_ = {stream.codecpar->width, stream.codecpar->height};
  const AVRational pixel = av_guess_sample_aspect_ratio(demuxer_.format(), &stream, nullptr);
  if (pixel.num > 0 && pixel.den > 0 && pixel.num != pixel.den) {
    coded_.width = static_cast<int>(std::lround(coded_.width * av_q2d(pixel) / 2)) * 2;
  }
  quarterTurns_ = quarterTurnsOf(stream);
  shown_ = quarterTurns_ % 2 == 0 ? coded_ : PictureSize{coded_.height, coded_.width};
}

std::shared_ptr<PixelBuffer> ClipVideo::pictureAt(MediaTime time) {
  if (!hasNext_) {
    decodeNext();
  }
  // Half an interval early is as near as half an interval late.
  while (hasNext_ && (nextTime_ <= time + frameInterval_ / 2 || (!picture_ && !hasCurrent_))) {
    av_frame_unref(current_.get());
    std::swap(current_, next_);
    hasCurrent_ = true;
    hasNext_ = false;
    decodeNext();
  }
  if (ended_ && decoded_ == 0) {
    failure_ = "no picture of the file could be decoded";
  }
  if (hasCurrent_) {
    hasCurrent_ = false;
    picture_ = toPicture(*current_);
    av_frame_unref(current_.get());
  }
  return picture_;
}

/// Leaves the next decoded picture in next_, unless the track has ended or is starved of packets.
void ClipVideo::decodeNext() {
  while (!hasNext_ && !ended_) {
    const int result = avcodec_receive_frame(decoder_.get(), next_.get());
    if (result >= 0) {
      hasNext_ = true;
      ++decoded_;
      stamp();
      return;
    }
    if (result == AVERROR_EOF) {
      avcodec_flush_buffers(decoder_.get());
      ended_ = lastPass_;
      continue;
    }
    auto item = demuxer_.next(ClipDemuxer::Track::Video);
    if (item.kind == ClipDemuxer::Item::Kind::Starved) {
      return;
    }
    if (item.kind == ClipDemuxer::Item::Kind::Packet) {
      origin_ = item.origin;
    }
    lastPass_ = item.kind == ClipDemuxer::Item::Kind::End;
    // A damaged packet costs its picture; decoding goes on with the next. No packet makes the decoder give up what it
    // holds back.
    (void)avcodec_send_packet(decoder_.get(), item.packet.get());
  }
}

void ClipVideo::stamp() {
  const std::int64_t time = next_->best_effort_timestamp;
  const MediaTime after = nextTime_ + (decoded_ > 1 ? frameInterval_ : MediaTime{});
  nextTime_ = time == AV_NOPTS_VALUE ? after : origin_ + demuxer_.inPass(ClipDemuxer::Track::Video, time);
}

bool ClipVideo::isPlain(const AVFrame& frame) const {
  return frame.format == AV_PIX_FMT_YUV420P && !isFullRange(frame) && frame.width == coded_.width &&
         frame.height == coded_.height;
}

/// Where it can be, the decoder's own memory; else a copy.
std::shared_ptr<PixelBuffer> ClipVideo::toPicture(const AVFrame& frame) {
  auto picture = isPlain(frame) && quarterTurns_ == 0 ? DecoderMemory::pictureOf(frame) : nullptr;
  if (!picture) {
    picture = copy(frame);
  }
  if (picture) {
    picture->setColorMatrix(isRgb(frame.format) ? ColorMatrix::BT601 : matrixOf(frame));
  } else if (failure_.empty()) {
    failure_ = "a picture could not be converted";
  }
  return picture;
}

std::shared_ptr<PixelBuffer> ClipVideo::copy(const AVFrame& frame) {
  auto target = pool_->acquire();
  if (!target) {
    return nullptr;
  }
  if (isPlain(frame)) {
    turn(frame.data, frame.linesize, *target);
    return target;
  }
  if (quarterTurns_ == 0) {
    return scale(frame, *target) ? target : nullptr;
  }
  if (!scratch_) {
    scratch_ = PixelBuffer::create(PixelFormat::Planar, static_cast<std::size_t>(coded_.width),
                                   static_cast<std::size_t>(coded_.height));
  }
  if (!scratch_ || !scale(frame, *scratch_)) {
    return nullptr;
  }
  const std::uint8_t* planes[] = {scratch_->plane(0).base, scratch_->plane(1).base, scratch_->plane(2).base};
  const int strides[] = {static_cast<int>(scratch_->plane(0).bytesPerRow),
                         static_cast<int>(scratch_->plane(1).bytesPerRow),
                         static_cast<int>(scratch_->plane(2).bytesPerRow)};
  turn(planes, strides, *target);
  return target;
}

/// Brings any format and size to planar video range of coded_.
bool ClipVideo::scale(const AVFrame& frame, PixelBuffer& target) {
  scaler_.reset(sws_getCachedContext(scaler_.release(), frame.width, frame.height,
                                     static_cast<AVPixelFormat>(frame.format), coded_.width, coded_.height,
                                     AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
  if (!scaler_) {
    failure_ = "pictures of this format cannot be converted";
    return false;
  }
  const int* matrix = sws_getCoefficients(
      isRgb(frame.format) || frame.colorspace == AVCOL_SPC_UNSPECIFIED ? SWS_CS_DEFAULT : frame.colorspace);
  (void)sws_setColorspaceDetails(scaler_.get(), matrix, isFullRange(frame) || isRgb(frame.format) ? 1 : 0, matrix, 0, 0,
                                 1 << 16, 1 << 16);
  std::uint8_t* planes[4] = {target.plane(0).base, target.plane(1).base, target.plane(2).base, nullptr};
  const int strides[4] = {static_cast<int>(target.plane(0).bytesPerRow), static_cast<int>(target.plane(1).bytesPerRow),
                          static_cast<int>(target.plane(2).bytesPerRow), 0};
  return sws_scale(scaler_.get(), frame.data, frame.linesize, 0, frame.height, planes, strides) > 0;
}

void ClipVideo::turn(const std::uint8_t* const* planes, const int* strides, PixelBuffer& target) const {
  constexpr libyuv::RotationMode modes[] = {libyuv::kRotate0, libyuv::kRotate90, libyuv::kRotate180,
                                            libyuv::kRotate270};
  libyuv::I420Rotate(planes[0], strides[0], planes[1], strides[1], planes[2], strides[2], target.plane(0).base,
                     static_cast<int>(target.plane(0).bytesPerRow), target.plane(1).base,
                     static_cast<int>(target.plane(1).bytesPerRow), target.plane(2).base,
                     static_cast<int>(target.plane(2).bytesPerRow), coded_.width, coded_.height, modes[quarterTurns_]);
}

}  // namespace zellive::tool
