#include "apps/zellive/AvHandles.h"

namespace zellive::tool {

std::string avErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof text);
  return text;
}

DecoderPtr openDecoder(const AVStream& stream, std::string& error,
                       const std::function<void(AVCodecContext&)>& prepare) {
  const AVCodec* codec = avcodec_find_decoder(stream.codecpar->codec_id);
  if (codec == nullptr) {
    error = std::string("no decoder for ") + avcodec_get_name(stream.codecpar->codec_id);
    return nullptr;
  }
  DecoderPtr decoder(avcodec_alloc_context3(codec));
  if (!decoder || avcodec_parameters_to_context(decoder.get(), stream.codecpar) < 0) {
    error = "out of memory";
    return nullptr;
  }
  decoder->thread_count = 1;
  decoder->pkt_timebase = stream.time_base;
  if (prepare) {
    prepare(*decoder);
  }
  if (const int result = avcodec_open2(decoder.get(), codec, nullptr); result < 0) {
    error = avErrorText(result);
    return nullptr;
  }
  return decoder;
}

}  // namespace zellive::tool
