#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "apps/zellive/MediaSource.h"
#include "zellive/platform/Platform.h"

namespace zellive::tool {

/// Where in their clips a camera and a microphone are, so that both play the same moment although one begins later.
/// Thread-safe.
class ClipClock {
 public:
  /// How far the clips are at `time` of the media clock; they begin with the first call.
  [[nodiscard]] MediaTime positionAt(std::chrono::nanoseconds time) {
    const std::lock_guard lock(mutex_);
    origin_ = origin_.value_or(time);
    return time - *origin_;
  }

 private:
  std::mutex mutex_;
  std::optional<std::chrono::nanoseconds> origin_;
};

/// Add a virtual device that plays the file over and over, and return its id; nothing, with `error` set, when the file
/// cannot be played. Pictures of another shape than the camera's get black bars.
[[nodiscard]] std::optional<std::string> addClipCamera(const Platform& platform, const std::string& path,
                                                       std::shared_ptr<ClipClock> clock, std::string& error);
[[nodiscard]] std::optional<std::string> addClipMicrophone(const Platform& platform, const std::string& path,
                                                           std::shared_ptr<ClipClock> clock, std::string& error);

}  // namespace zellive::tool
