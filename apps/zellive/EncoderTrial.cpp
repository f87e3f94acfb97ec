#include "apps/zellive/EncoderTrial.h"

#include <string_view>

#include "apps/zellive/LogCollector.h"

extern "C" {
#include <libavutil/log.h>
}

namespace zellive::tool {
namespace {

/// It only sums up what the complaints before it have said.
constexpr std::string_view summary = "no H.264 encoder works";

}  // namespace

std::string tryEncoder(const Platform& platform, const VideoCompressionSettings& settings) {
  // The library says in its own words what an encoder's library writes to standard error.
  av_log_set_level(AV_LOG_QUIET);
  const LogCollector complaints(LogLevel::Error, summary);
  int status = 0;
  if (platform.videoCompression->create(
          settings, [](auto, int, auto) {}, status)) {
    return {};
  }
  const auto text = complaints.text();
  return text.empty() ? "no H.264 encoder works on this machine" : text;
}

std::string tryEncoder(const PublishOptions& options, const ZelLiveVideoConfiguration& video) {
  VideoCompressionSettings settings;
  settings.width = static_cast<std::int32_t>(video.videoSize().width);
  settings.height = static_cast<std::int32_t>(video.videoSize().height);
  settings.expectedFrameRate = video.videoFrameRate();
  settings.averageBitRate = static_cast<std::int64_t>(video.videoBitRate());
  settings.options = {options.encoder, options.preset};
  return tryEncoder(*defaultPlatform(), settings);
}

}  // namespace zellive::tool
