#include "apps/zellive/LibraryLog.h"

namespace zellive::tool {
namespace {

/// What people need not see: a connection's failure follows in plain words, and a stream with a URL has no live room.
bool isDetail(std::string_view message) {
  return message.starts_with("Live: RTMP_") || message.starts_with("librtmp: ") ||
         message.starts_with("Live: refresh push request error");
}

/// "Live: RTMP connect 1 , handshake 2": there is a connection. What fails later is news, even when it fails at once.
bool tellsOfConnection(std::string_view message) {
  return message.starts_with("Live: RTMP connect ") && message.find(" , handshake ") != std::string_view::npos;
}

/// The words of "Live: RTMP connect error -3 message cannot connect"; empty for any other message.
std::string_view connectErrorWords(std::string_view message) {
  constexpr std::string_view words = " message ";
  const auto at = message.starts_with("Live: RTMP connect error ") ? message.find(words) : std::string_view::npos;
  return at == std::string_view::npos ? std::string_view() : message.substr(at + words.size());
}

}  // namespace

void LibraryLog::install() {
  setLogHandler([self = shared_from_this()](LogLevel level, std::string_view, int, std::string_view message) {
    self->receive(level, message);
  });
}

void LibraryLog::receive(LogLevel level, std::string_view message) {
  {
    const std::lock_guard lock(mutex_);
    if (tellsOfConnection(message)) {
      lastConnectError_.clear();
      lastError_.clear();
      shown_.clear();
    } else if (const auto words = connectErrorWords(message); !words.empty()) {
      lastConnectError_ = words;
      message = words;
    } else if (isDetail(message) || (level == LogLevel::Warning && !warnings_)) {
      level = LogLevel::Information;
    } else if (level == LogLevel::Error && isRepeated(message)) {
      level = LogLevel::Information;
    } else if (level == LogLevel::Error) {
      lastError_ = message.starts_with("Live: ") ? message.substr(6) : message;
    }
  }
  output_->log(level, message);
}

/// An encoder that does not work says so with each picture, and its bare codes only repeat what words have said.
bool LibraryLog::isRepeated(std::string_view message) {
  if (message.starts_with("Live: VTCompressionSession") && !lastError_.empty()) {
    return true;
  }
  constexpr std::size_t limit = 100;
  return shown_.size() < limit && !shown_.emplace(message).second;
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

}  // namespace zellive::tool
