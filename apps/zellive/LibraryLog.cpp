#include "apps/zellive/LibraryLog.h"

namespace zellive::tool {

void LibraryLog::install() {
  setLogHandler([self = shared_from_this()](LogLevel level, std::string_view, int, std::string_view message) {
    self->receive(level, message);
  });
}

void LibraryLog::uninstall() { setLogHandler({}); }

void LibraryLog::receive(LogLevel level, std::string_view message) {
  // "Live: RTMP connect error -3 message connection refused"
  constexpr std::string_view connectError = "Live: RTMP connect error ";
  constexpr std::string_view words = " message ";
  bool show = true;
  {
    const std::lock_guard lock(mutex_);
    if (message.starts_with(connectError)) {
      const auto at = message.find(words, connectError.size());
      lastConnectError_ = at == std::string_view::npos ? message : message.substr(at + words.size());
    } else if (level == LogLevel::Error) {
      lastError_ = message.starts_with("Live: ") ? message.substr(6) : message;
    }
    show = level != LogLevel::Warning || warnings_;
  }
  output_->log(show ? level : LogLevel::Information, message);
}

void LibraryLog::showWarnings() {
  const std::lock_guard lock(mutex_);
  warnings_ = true;
}

std::string LibraryLog::lastConnectError() const {
  const std::lock_guard lock(mutex_);
  return lastConnectError_;
}

std::string LibraryLog::lastError() const {
  const std::lock_guard lock(mutex_);
  return lastError_;
}

void LibraryLog::forgetErrors() {
  const std::lock_guard lock(mutex_);
  lastConnectError_.clear();
  lastError_.clear();
}

}  // namespace zellive::tool
