#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace zellive {

class ZelLiveAudioConfiguration;
class ZelLiveVideoConfiguration;

/// What the publisher is told to open. The application fills it before `startLive`; afterwards only the URLs change,
/// and those may be read and written on any thread.
class ZelLiveStreamInfo {
 public:
  std::string streamId;
  /// Live-room identifier; absent for a stream without a room.
  std::optional<std::string> roomId;
  /// Not used for publishing: the URL is authoritative.
  std::string host;
  /// Not used for publishing.
  std::int64_t port = 0;
  std::shared_ptr<ZelLiveAudioConfiguration> audioConfiguration;
  std::shared_ptr<ZelLiveVideoConfiguration> videoConfiguration;

  /// The RTMP push URL. It holds its owner's key: see maskedUrl before showing it.
  [[nodiscard]] std::string url() const { return read(url_); }
  void setUrl(std::string url) { write(url_, std::move(url)); }
  /// The viewers' URL.
  [[nodiscard]] std::string pullUrl() const { return read(pullUrl_); }
  void setPullUrl(std::string url) { write(pullUrl_, std::move(url)); }

 private:
  std::string read(const std::string& field) const {
    const std::lock_guard lock(mutex_);
    return field;
  }
  void write(std::string& field, std::string value) {
    const std::lock_guard lock(mutex_);
    field = std::move(value);
  }

  mutable std::mutex mutex_;
  std::string url_;
  std::string pullUrl_;
};

}  // namespace zellive
