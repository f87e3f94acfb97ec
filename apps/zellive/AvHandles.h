#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <functional>
#include <memory>
#include <string>

namespace zellive::tool {

template <typename Handle, void (*release)(Handle**)>
struct AvRelease {
  void operator()(Handle* handle) const { release(&handle); }
};
struct SwsRelease {
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};

using PacketPtr = std::unique_ptr<AVPacket, AvRelease<AVPacket, av_packet_free>>;
using FramePtr = std::unique_ptr<AVFrame, AvRelease<AVFrame, av_frame_free>>;
using DecoderPtr = std::unique_ptr<AVCodecContext, AvRelease<AVCodecContext, avcodec_free_context>>;
using FormatPtr = std::unique_ptr<AVFormatContext, AvRelease<AVFormatContext, avformat_close_input>>;
using ResamplerPtr = std::unique_ptr<SwrContext, AvRelease<SwrContext, swr_free>>;
using ScalerPtr = std::unique_ptr<SwsContext, SwsRelease>;

/// libav's words for an error code.
[[nodiscard]] std::string avErrorText(int code);

/// A decoder for `stream`, on one thread: decoding in real time leaves a processor nearly idle, and every further
/// thread holds pictures. `prepare`, if given, may change it before it opens. Null with `error` set when there is none.
[[nodiscard]] DecoderPtr openDecoder(const AVStream& stream, std::string& error,
                                     const std::function<void(AVCodecContext&)>& prepare = {});

}  // namespace zellive::tool
