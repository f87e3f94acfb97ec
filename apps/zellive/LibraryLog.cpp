#include "apps/zellive/LibraryLog.h"

#include <charconv>
#include <optional>
#include <system_error>

#include "zellive/transport/RtmpConnection.h"

namespace zellive::tool {
namespace {

/// What people need not see: a connection's failure is told in plain words.
bool isDetail(std::string_view message) {
  return message.starts_with("Live: RTMP_") || message.starts_with("Live: librtmp: ") ||
         message.starts_with("Live: send packet error: ") || message.starts_with("Live: handleRouteChange ") ||
         message.starts_with("Live: handleInterruption");
}

constexpr std::string_view pipeWire = "Live: PipeWire ";

/// A camera or microphone that fails or is back, or the service that carries them. The library tells each such news
/// once; a device that fails, recovers and fails again is news each time.
std::optional<DeviceNews> deviceNews(LogLevel level, std::string_view message) {
  bool isDevice = false;
  for (const std::string_view start :
       {std::string_view("Live: the camera \""), std::string_view("Live: the microphone"),
        std::string_view("Live: there is no microphone"), pipeWire}) {
    isDevice = isDevice || message.starts_with(start);
  }
  if (!isDevice) {
    return std::nullopt;
  }
  if (message.ends_with(" again") && !message.ends_with("trying again") && !message.ends_with("tried again")) {
    return DeviceNews::Back;
  }
  return level == LogLevel::Information ? std::nullopt : std::optional(DeviceNews::Trouble);
}

/// "Live: RTMP connect 1 , handshake 2": there is a connection. What fails later is news, even when it fails at once.
bool tellsOfConnection(std::string_view message) {
  return message.starts_with("Live: RTMP connect ") && message.find(" , handshake ") != std::string_view::npos;
}

/// Removes `prefix` and the number after it from the text, if it begins so.
std::optional<std::int64_t> takeNumber(std::string_view& text, std::string_view prefix) {
  std::int64_t number = 0;
  if (!text.starts_with(prefix)) {
    return std::nullopt;
  }
  const auto [end, error] = std::from_chars(text.data() + prefix.size(), text.data() + text.size(), number);
  if (error != std::errc()) {
    return std::nullopt;
  }
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

}  // namespace

void LibraryLog::install() {
  setLogHandler([self = shared_from_this()](LogLevel level, std::string_view, int, std::string_view message) {
    self->receive(level, message);
  });
}

/// True when it was a failed connection, which is told with what is being done about it.
bool LibraryLog::handOn(std::string_view message) {
  using Kind = SessionEvents::Event::Kind;
  constexpr std::string_view words = " message ";
  if (const auto code = takeNumber(message, "Live: RTMP connect error "); code && message.starts_with(words)) {
    if (*code != RtmpFailureAborted) {
      note_({Kind::Failure, *code, std::string(message.substr(words.size()))});
    }
    return true;
  }
  if (message == "Live: no network, its return is waited for") {
    note_({Kind::NetworkOut, 0, {}});
  } else if (const auto status = takeNumber(message, "Live: net reachabilityChange "); status.value_or(0) > 0) {
    note_({Kind::NetworkChanged, *status, {}});
  }
  return false;
}

void LibraryLog::receive(LogLevel level, std::string_view message) {
  if (handOn(message)) {
    return;
  }
  if (const auto news = deviceNews(level, message); news && (hasHardware_ || !message.starts_with(pipeWire))) {
    output_->device(*news, message.substr(message.find(' ') + 1));
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    if (tellsOfConnection(message)) {
      lastError_.clear();
      shown_.clear();
    } else if (isDetail(message) || message.starts_with(pipeWire) || (level == LogLevel::Warning && !warnings_) ||
               (level == LogLevel::Error && isRepeated(message))) {
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

std::string LibraryLog::lastError() const {
  const std::lock_guard lock(mutex_);
  return lastError_;
}

}  // namespace zellive::tool
