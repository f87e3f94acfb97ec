#include "zellive/platform/linux/FfmpegVideoCompression.h"

#include <cerrno>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// Holds the place of the real service: refuses every request.
class NoVideoCompression : public VideoCompressionService {
 public:
  [[nodiscard]] std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings&,
                                                                VideoCompressionSession::OutputHandler,
                                                                int& status) override {
    ZEL_LOG_ERROR("Live: no video encoder is built in");
    status = -ENOSYS;
    return nullptr;
  }
  [[nodiscard]] std::vector<VideoEncoderDescription> available() override { return {}; }
};

}  // namespace

std::shared_ptr<VideoCompressionService> makeFfmpegVideoCompression() { return std::make_shared<NoVideoCompression>(); }

}  // namespace zellive
