#include "zellive/platform/linux/FfmpegSupport.h"

#include <array>
#include <utility>

extern "C" {
#include <libavutil/error.h>
}

namespace zellive::ffmpeg {

std::string errorText(int status) {
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(status, text.data(), text.size());
  return text.data();
}

std::shared_ptr<const void> takeMemory(AVPacket& packet) {
  if (packet.buf == nullptr) {
    return nullptr;
  }
  return {std::exchange(packet.buf, nullptr), Deleter{}};
}

}  // namespace zellive::ffmpeg
