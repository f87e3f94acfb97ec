#pragma once

#include <memory>
#include <string>

#include "zellive/platform/Data.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/frame.h>
}

namespace zellive::ffmpeg {

struct Deleter {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, Deleter>;
using FramePtr = std::unique_ptr<AVFrame, Deleter>;
using PacketPtr = std::unique_ptr<AVPacket, Deleter>;
using BufferPtr = std::unique_ptr<AVBufferRef, Deleter>;

/// What libavcodec writes to standard error on its own: errors only, or nothing for attempts that are expected to fail.
inline constexpr int kErrorsOnly = AV_LOG_INFO - AV_LOG_ERROR;
inline constexpr int kSilent = AV_LOG_TRACE;

/// The words for an error of libavcodec's.
[[nodiscard]] std::string errorText(int status);

/// Gives every packet that the encoder has ready to `deliver`, through `packet`; an error of libavcodec's, or 0.
int receivePackets(AVCodecContext& encoder, AVPacket& packet, const auto& deliver) {
  for (;;) {
    const int status = avcodec_receive_packet(&encoder, &packet);
    if (status < 0) {
      return status == AVERROR(EAGAIN) || status == AVERROR_EOF ? 0 : status;
    }
    deliver();
    av_packet_unref(&packet);
  }
}

/// Takes the packet's reference to its memory, which then lives as long as the result. Empty for a packet of none.
[[nodiscard]] std::shared_ptr<const void> takeMemory(AVPacket& packet);

}  // namespace zellive::ffmpeg
