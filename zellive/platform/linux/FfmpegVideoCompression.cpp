#include "zellive/platform/linux/FfmpegVideoCompression.h"

#include <array>
#include <cerrno>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/platform/linux/FfmpegVideoEncoders.h"
#include "zellive/platform/linux/FfmpegVideoSession.h"

namespace zellive {
namespace {

/// Encodes one small picture: 0, or the encoder's error.
int tryEncoder(const VideoEncoderKind& kind) {
  VideoCompressionSettings settings;
  settings.width = 320;
  settings.height = 240;
  settings.expectedFrameRate = 30;
  settings.averageBitRate = 500'000;
  bool encoded = false;
  FfmpegVideoSession session(kind, settings, /*quiet=*/true,
                             [&encoded](std::uint64_t /*reference*/, int status, const VideoSample* sample) {
                               encoded = status == 0 && sample != nullptr && sample->data;
                             });
  if (const int status = session.open(); status != 0) {
    return status;
  }
  const auto picture = PixelBuffer::create(PixelFormat::BiPlanarVideoRange, 320, 240);
  if (!picture) {
    return AVERROR(ENOMEM);
  }
  for (std::size_t index = 0; index < picture->planeCount(); ++index) {
    const auto& plane = picture->plane(index);
    std::fill_n(plane.base, plane.bytesPerRow * plane.height, std::uint8_t{128});
  }
  if (const int status = session.encodeFrame(picture, 0, {}, 0); status != 0) {
    return status;
  }
  session.completeFrames();
  return encoded ? 0 : AVERROR_EXTERNAL;
}

bool hasPreset(const VideoEncoderKind& kind, const std::string& preset) {
  return preset.empty() || kind.presets == nullptr ||
         (preset.find(' ') == std::string::npos &&
          (" " + std::string(kind.presets) + " ").find(" " + preset + " ") != std::string::npos);
}

class FfmpegVideoCompression final : public VideoCompressionService {
 public:
  std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings& settings,
                                                  VideoCompressionSession::OutputHandler output, int& status) override {
    status = AVERROR(EINVAL);
    if (!FfmpegVideoSession::acceptsSize(settings.width, settings.height)) {
      ZEL_LOG_ERROR("Live: cannot encode pictures of %d x %d pixels: each side must be 2 to 16384", settings.width,
                    settings.height);
      return nullptr;
    }
    const std::string& name = settings.options.encoder;
    if (!name.empty()) {
      return createNamed(name, settings, std::move(output), status);
    }
    status = AVERROR_ENCODER_NOT_FOUND;
    for (const VideoEncoderKind& kind : videoEncoderKinds()) {
      if (probe(kind) != 0) {
        continue;
      }
      if (auto session = open(kind, settings, output, status)) {
        return session;
      }
    }
    ZEL_LOG_ERROR("Live: no H.264 encoder works on this machine with these settings");
    return nullptr;
  }

  std::vector<VideoEncoderDescription> available() override {
    std::vector<VideoEncoderDescription> working;
    for (const VideoEncoderKind& kind : videoEncoderKinds()) {
      if (probe(kind) == 0) {
        std::istringstream presets(kind.presets != nullptr ? kind.presets : "");
        working.push_back({kind.name, kind.hardware, {std::istream_iterator<std::string>(presets), {}}});
      }
    }
    return working;
  }

 private:
  std::unique_ptr<VideoCompressionSession> createNamed(const std::string& name,
                                                       const VideoCompressionSettings& settings,
                                                       VideoCompressionSession::OutputHandler output, int& status) {
    const VideoEncoderKind* kind = findVideoEncoderKind(name);
    if (kind == nullptr) {
      status = AVERROR_ENCODER_NOT_FOUND;
      ZEL_LOG_ERROR("Live: there is no video encoder \"%s\"; take h264_nvenc, h264_vaapi or libx264", name.c_str());
      return nullptr;
    }
    status = probe(*kind);
    if (status != 0) {
      ZEL_LOG_ERROR("Live: video encoder %s does not work on this machine: %s (it needs %s)", kind->name,
                    ffmpeg::errorText(status).c_str(), kind->needs);
      return nullptr;
    }
    return open(*kind, settings, std::move(output), status);
  }

  static std::unique_ptr<VideoCompressionSession> open(const VideoEncoderKind& kind,
                                                       const VideoCompressionSettings& settings,
                                                       VideoCompressionSession::OutputHandler output, int& status) {
    if (!hasPreset(kind, settings.options.preset)) {
      status = AVERROR_OPTION_NOT_FOUND;
      ZEL_LOG_ERROR("Live: video encoder %s has no preset \"%s\"; it has %s", kind.name,
                    settings.options.preset.c_str(), kind.presets);
      return nullptr;
    }
    auto session = std::make_unique<FfmpegVideoSession>(kind, settings, /*quiet=*/false, std::move(output));
    status = session->open();
    if (status != 0) {
      ZEL_LOG_ERROR("Live: video encoder %s refuses %d x %d, preset \"%s\": %s", kind.name, settings.width,
                    settings.height, settings.options.preset.c_str(), ffmpeg::errorText(status).c_str());
      return nullptr;
    }
    ZEL_LOG_INFO("Live: video encoder %s", session->describe().c_str());
    return session;
  }

  /// 0, or why the encoder does not work here.
  int probe(const VideoEncoderKind& kind) {
    const auto index = static_cast<std::size_t>(&kind - videoEncoderKinds().data());
    const std::lock_guard lock(mutex_);
    std::optional<int>& answer = answers_.at(index);
    if (!answer) {
      answer = tryEncoder(kind);
      if (*answer != 0) {
        ZEL_LOG_INFO("Live: video encoder %s does not work here: %s", kind.name, ffmpeg::errorText(*answer).c_str());
      }
    }
    return *answer;
  }

  std::mutex mutex_;
  std::array<std::optional<int>, 3> answers_;  // guarded by mutex_; one for each of videoEncoderKinds()
};

}  // namespace

std::shared_ptr<VideoCompressionService> makeFfmpegVideoCompression() {
  return std::make_shared<FfmpegVideoCompression>();
}

}  // namespace zellive
