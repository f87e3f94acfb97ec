#include "apps/zellive/Output.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "zellive/session/ZelLiveSessionDelegate.h"
#include "zellive/transport/ZelStreamRtmpSocket.h"

namespace zellive::tool {
namespace {

using Json = nlohmann::ordered_json;

std::string toLine(const Json& object) { return object.dump(-1, ' ', false, Json::error_handler_t::replace); }

double rounded(double value, double steps) { return std::round(value * steps) / steps; }

std::string statusText(const StreamStatus& status) {
  std::array<char, 200> text{};
  std::snprintf(text.data(), text.size(), "%-12s %s  %6.0f kbit/s  %4.1f fps  queued %lld  dropped %lld",
                status.state.c_str(), clockText(status.elapsed).c_str(), status.bitsPerSecond / 1000,
                status.framesPerSecond, static_cast<long long>(status.queued), static_cast<long long>(status.dropped));
  return text.data();
}

void replaceAll(std::string& text, const std::string& part, const std::string& by) {
  if (part.empty()) {
    return;
  }
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + by.size())) {
    text.replace(at, part.size(), by);
  }
}

/// What follows the application's name; short ones are left alone, as "live" or "test" would tear words apart.
std::string keyOf(const std::string& url) {
  const auto scheme = url.find("://");
  const auto host = scheme == std::string::npos ? 0 : scheme + 3;
  const auto application = url.find('/', host);
  const auto key = application == std::string::npos ? application : url.find('/', application + 1);
  if (key == std::string::npos || url.size() - key - 1 < 6) {
    return {};
  }
  return url.substr(key + 1);
}

}  // namespace

std::string clockText(std::chrono::duration<double> time) {
  const auto seconds = static_cast<long long>(time.count());
  std::array<char, 48> text{};
  std::snprintf(text.data(), text.size(), "%02lld:%02lld:%02lld", seconds / 3600, seconds / 60 % 60, seconds % 60);
  return text.data();
}

std::string stateName(std::uint64_t state) {
  switch (state) {
    case 0:
      return "starting";
    case ZelStreamSocketStatusConnecting:
      return "connecting";
    case ZelStreamSocketStatusConnected:
      return "connected";
    case ZelStreamSocketStatusStopped:
      return "stopped";
    case ZelStreamSocketStatusError:
      return "failed";
    case ZelStreamSocketStatusReconnecting:
      return "reconnecting";
    case ZelLiveSessionStateNoAudio:
      return "no sound";
    case ZelLiveSessionStateNoVideo:
      return "no picture";
    default:
      return "state " + std::to_string(state);
  }
}

Output::Output(Form form, bool verbose, std::string url, std::FILE* out, std::FILE* err)
    : form_(form),
      verbose_(verbose),
      url_(std::move(url)),
      shownUrl_(maskedUrl(url_)),
      key_(keyOf(url_)),
      out_(out),
      err_(err) {}

std::string Output::withoutKey(std::string_view text) const {
  std::string shown(text);
  replaceAll(shown, url_, shownUrl_);
  replaceAll(shown, key_, "***");
  return shown;
}

void Output::clearLine() {
  if (!line_.empty()) {
    std::fputs("\r\x1b[K", out_);
    std::fflush(out_);
  }
}

/// A whole line, above the one that is updated in place.
void Output::printLine(std::FILE* stream, const std::string& line) {
  clearLine();
  std::fprintf(stream, "%s\n", line.c_str());
  std::fflush(stream);
  if (!line_.empty()) {
    std::fputs(line_.c_str(), out_);
    std::fflush(out_);
  }
}

void Output::note(std::string_view text) {
  const std::lock_guard lock(mutex_);
  if (form_ != Form::Json) {
    printLine(out_, withoutKey(text));
  }
}

void Output::status(const StreamStatus& status) {
  const std::lock_guard lock(mutex_);
  if (form_ == Form::Terminal) {
    clearLine();
    line_ = statusText(status);
    std::fputs(line_.c_str(), out_);
    std::fflush(out_);
  } else if (form_ == Form::Lines) {
    printLine(out_, statusText(status));
  } else {
    printLine(out_, toLine({{"type", "status"},
                            {"state", status.state},
                            {"elapsed", rounded(status.elapsed.count(), 1000)},
                            {"bit_rate", std::llround(status.bitsPerSecond)},
                            {"frame_rate", rounded(status.framesPerSecond, 100)},
                            {"queued", status.queued},
                            {"dropped", status.dropped},
                            {"encoder_bit_rate", status.encoderBitRate}}));
  }
}

void Output::stateChanged(std::uint64_t state, const StreamStatus& status) {
  const std::lock_guard lock(mutex_);
  if (form_ == Form::Json) {
    printLine(out_, toLine({{"type", "state"},
                            {"state", stateName(state)},
                            {"code", state},
                            {"elapsed", rounded(status.elapsed.count(), 1000)}}));
  } else {
    if (!line_.empty()) {
      clearLine();
      line_ = statusText(status);
    }
    printLine(out_, clockText(status.elapsed) + " " + stateName(state));
  }
}

void Output::error(std::uint64_t code, std::string_view text) {
  const std::lock_guard lock(mutex_);
  if (form_ == Form::Json) {
    printLine(out_, toLine({{"type", "error"}, {"code", code}, {"message", withoutKey(text)}}));
  }
  printLine(err_, "zellive: " + withoutKey(text));
}

void Output::log(LogLevel level, std::string_view text) {
  if (level == LogLevel::Information && !verbose_) {
    return;
  }
  constexpr std::array names{"error", "warning", "information"};
  if (text.starts_with("Live: ")) {
    text.remove_prefix(6);
  }
  const std::lock_guard lock(mutex_);
  printLine(err_, std::string("zellive: ") + names.at(static_cast<std::size_t>(level)) + ": " + withoutKey(text));
}

void Output::finish() {
  const std::lock_guard lock(mutex_);
  if (!line_.empty()) {
    std::fputs("\n", out_);
    std::fflush(out_);
    line_.clear();
  }
}

}  // namespace zellive::tool
