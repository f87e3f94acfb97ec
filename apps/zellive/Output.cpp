#include "apps/zellive/Output.h"

#include <algorithm>
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

constexpr std::size_t shortestSecret = 6;

double rounded(double value, double steps) { return std::round(value * steps) / steps; }

Json orNull(const std::optional<double>& value, double steps) {
  if (!value) {
    return nullptr;
  }
  return steps > 1 ? Json(rounded(*value, steps)) : Json(std::llround(*value));
}

/// "  1536" or "     -".
std::string figure(const std::optional<double>& value, int width, int decimals) {
  std::array<char, 32> text{};
  if (value) {
    std::snprintf(text.data(), text.size(), "%*.*f", width, decimals, *value);
  } else {
    std::snprintf(text.data(), text.size(), "%*s", width, "-");
  }
  return text.data();
}

std::string statusText(const StreamStatus& status) {
  std::array<char, 200> text{};
  const auto kilobits = status.bitsPerSecond ? std::optional(*status.bitsPerSecond / 1000) : std::nullopt;
  std::snprintf(text.data(), text.size(), "%-12s %s  %s kbit/s  %s fps  queued %lld  dropped %lld",
                status.state.c_str(), clockText(status.elapsed).c_str(), figure(kilobits, 6, 0).c_str(),
                figure(status.framesPerSecond, 4, 1).c_str(), static_cast<long long>(status.queued),
                static_cast<long long>(status.dropped));
  return text.data();
}

/// The URL's parts that hold its owner's key: what follows the application's name, as a whole and up to the query.
/// Short ones are left alone, as "live" or "test" would tear sentences apart.
std::vector<std::string> secretsOf(const std::string& url) {
  std::vector<std::string> secrets;
  const auto scheme = url.find("://");
  const auto application = url.find('/', scheme == std::string::npos ? 0 : scheme + 3);
  const auto key = application == std::string::npos ? application : url.find('/', application + 1);
  if (key != std::string::npos) {
    secrets.push_back(url.substr(key + 1));
    secrets.push_back(url.substr(key + 1, url.find('?', key) - key - 1));
  }
  std::erase_if(secrets, [](const std::string& secret) { return secret.size() < shortestSecret; });
  return secrets;
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
      secrets_(secretsOf(url_)),
      out_(out),
      err_(err) {}

/// Without the key, and without what a server's words could do to a terminal.
std::string Output::presentable(std::string_view text) const {
  std::string shown(text);
  for (auto at = shown.find(url_); at != std::string::npos && !url_.empty(); at = shown.find(url_, at)) {
    shown.replace(at, url_.size(), shownUrl_);
    at += shownUrl_.size();
  }
  shown = maskSecrets(std::move(shown), secrets_);
  std::ranges::replace_if(
      shown, [](unsigned char c) { return c < ' ' || c == 0x7F; }, ' ');
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
    printLine(out_, presentable(text));
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
                            {"bit_rate", orNull(status.bitsPerSecond, 1)},
                            {"frame_rate", orNull(status.framesPerSecond, 100)},
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
    printLine(out_, toLine({{"type", "error"}, {"code", code}, {"message", presentable(text)}}));
  }
  printLine(err_, "zellive: " + presentable(text));
}

void Output::trouble(const Trouble& trouble) {
  const std::lock_guard lock(mutex_);
  if (form_ == Form::Json) {
    Json object{{"type", trouble.code != 0 ? "error" : "trouble"}};
    if (trouble.code != 0) {
      object["code"] = trouble.code;
    }
    object["kind"] = trouble.kind;
    object["message"] = presentable(trouble.reason);
    if (trouble.retry != 0) {
      object["retry"] = trouble.retry;
      object["retries"] = trouble.retries;
    }
    if (trouble.seconds != 0) {
      object["seconds"] = trouble.seconds;
    }
    printLine(out_, toLine(object));
  }
  printLine(err_, "zellive: " + presentable(trouble.text));
}

void Output::device(DeviceNews news, std::string_view text) {
  const std::lock_guard lock(mutex_);
  const bool trouble = news == DeviceNews::Trouble;
  if (form_ == Form::Json) {
    printLine(
        out_,
        toLine({{"type", "trouble"}, {"kind", trouble ? "device" : "device_back"}, {"message", presentable(text)}}));
  }
  if (trouble || form_ != Form::Json) {
    printLine(trouble ? err_ : out_, (trouble ? "zellive: " : "") + presentable(text));
  }
}

void Output::background(bool inBackground) {
  const std::lock_guard lock(mutex_);
  if (form_ == Form::Json) {
    printLine(out_, toLine({{"type", "background"}, {"background", inBackground}}));
  } else {
    printLine(out_, inBackground ? "in the background: viewers see a still picture and hear the sound"
                                 : "in front again: the picture goes on");
  }
}

void Output::recovered(std::chrono::duration<double> after, const StreamStatus& status) {
  const std::lock_guard lock(mutex_);
  if (form_ == Form::Json) {
    printLine(out_, toLine({{"type", "recovered"}, {"seconds", rounded(after.count(), 1000)}}));
  } else {
    printLine(out_, clockText(status.elapsed) + " back after " + std::to_string(std::llround(after.count())) + " s");
  }
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
  printLine(err_, std::string("zellive: ") + names.at(static_cast<std::size_t>(level)) + ": " + presentable(text));
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
