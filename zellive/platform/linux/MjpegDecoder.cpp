#include "zellive/platform/linux/MjpegDecoder.h"

#include <algorithm>

namespace zellive {
namespace {

/// Bytes. Of no camera's; whoever says so is mistaken.
constexpr std::size_t kLargestPicture = std::size_t{64} << 20;

std::optional<RawLayout> layoutOf(int format) {
  switch (format) {
    case AV_PIX_FMT_YUVJ420P:
    case AV_PIX_FMT_YUV420P:
      return RawLayout::I420;
    case AV_PIX_FMT_YUVJ422P:
    case AV_PIX_FMT_YUV422P:
      return RawLayout::I422;
    case AV_PIX_FMT_YUVJ444P:
    case AV_PIX_FMT_YUV444P:
      return RawLayout::I444;
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<RawPicture> MjpegDecoder::decode(std::span<const std::uint8_t> data) {
  if (data.size() > kLargestPicture) {
    return std::nullopt;
  }
  if (!decoder_) {
    decoder_.reset(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_MJPEG)));
    frame_.reset(av_frame_alloc());
    packet_.reset(av_packet_alloc());
    if (!decoder_ || !frame_ || !packet_) {
      return std::nullopt;
    }
    decoder_->thread_count = 1;                    // More would hold pictures back.
    decoder_->log_level_offset = ffmpeg::kSilent;  // Cameras send torn pictures now and then.
    if (avcodec_open2(decoder_.get(), nullptr, nullptr) != 0) {
      return std::nullopt;
    }
  }
  // The decoder reads ahead of the end.
  padded_.resize(std::max(padded_.size(), data.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  std::copy(data.begin(), data.end(), padded_.begin());
  std::fill_n(padded_.begin() + static_cast<std::ptrdiff_t>(data.size()), AV_INPUT_BUFFER_PADDING_SIZE, 0);
  packet_->data = padded_.data();
  packet_->size = static_cast<int>(data.size());
  if (avcodec_send_packet(decoder_.get(), packet_.get()) != 0 ||
      avcodec_receive_frame(decoder_.get(), frame_.get()) != 0) {
    return std::nullopt;
  }
  const auto layout = layoutOf(frame_->format);
  if (!layout || frame_->width <= 0 || frame_->height <= 0) {
    return std::nullopt;
  }
  RawPicture picture;
  picture.layout = *layout;
  picture.width = static_cast<std::size_t>(frame_->width);
  picture.height = static_cast<std::size_t>(frame_->height);
  picture.fullRange = frame_->color_range != AVCOL_RANGE_MPEG;
  for (std::size_t i = 0; i < picture.planes.size(); ++i) {
    picture.planes[i] = {frame_->data[i], static_cast<std::size_t>(frame_->linesize[i])};
  }
  return picture;
}

}  // namespace zellive
