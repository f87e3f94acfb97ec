#include "apps/zellive/EncoderTrial.h"

#include <memory>
#include <mutex>
#include <string_view>

#include "zellive/platform/Log.h"
#include "zellive/platform/Platform.h"

extern "C" {
#include <libavutil/log.h>
}

namespace zellive::tool {
namespace {

constexpr std::string_view summary = "Live: no H.264 encoder works";

/// What the library complains of, each complaint once.
struct Complaints {
  void add(std::string_view message) {
    const std::lock_guard lock(mutex);
    if (!message.starts_with(summary)) {
      message.remove_prefix(message.starts_with("Live: ") ? 6 : 0);
      text += (text.empty() ? "" : "; ") + std::string(message);
    }
  }
  std::mutex mutex;
  std::string text;
};

}  // namespace

std::string tryEncoder(const PublishOptions& options, const ZelLiveVideoConfiguration& video) {
  // The library says in its own words what an encoder's library writes to standard error.
  av_log_set_level(AV_LOG_QUIET);
  const auto complaints = std::make_shared<Complaints>();
  setLogHandler([complaints](LogLevel level, std::string_view, int, std::string_view message) {
    if (level == LogLevel::Error) {
      complaints->add(message);
    }
  });
  VideoCompressionSettings settings;
  settings.width = static_cast<std::int32_t>(video.videoSize().width);
  settings.height = static_cast<std::int32_t>(video.videoSize().height);
  settings.expectedFrameRate = video.videoFrameRate();
  settings.averageBitRate = static_cast<std::int64_t>(video.videoBitRate());
  settings.options = {options.encoder, options.preset};
  int status = 0;
  const bool works = defaultPlatform()->videoCompression->create(
                         settings, [](auto, int, auto) {}, status) != nullptr;
  setLogHandler({});
  const std::lock_guard lock(complaints->mutex);
  return works ? "" : complaints->text.empty() ? "no H.264 encoder works on this machine" : complaints->text;
}

}  // namespace zellive::tool
