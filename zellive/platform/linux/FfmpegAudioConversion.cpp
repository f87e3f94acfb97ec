#include "zellive/platform/linux/FfmpegAudioConversion.h"

#include <cerrno>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// Holds the place of the real service: refuses every request.
class NoAudioConversion : public AudioConverterService {
 public:
  [[nodiscard]] std::unique_ptr<AudioConverter> create(const AudioStreamBasicDescription&,
                                                       const AudioStreamBasicDescription&, int& status) override {
    ZEL_LOG_ERROR("Live: no audio encoder is built in");
    status = -ENOSYS;
    return nullptr;
  }
};

}  // namespace

std::shared_ptr<AudioConverterService> makeFfmpegAudioConversion() { return std::make_shared<NoAudioConversion>(); }

}  // namespace zellive
