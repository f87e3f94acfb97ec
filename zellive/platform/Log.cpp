#include "zellive/platform/Log.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <random>
#include <utility>

namespace zellive {
namespace {

/// The handler in force. Kept to the end of the process: other threads may log while it exits.
struct HandlerHolder {
  std::mutex mutex;
  std::shared_ptr<const LogHandler> handler;
};

HandlerHolder& holder() {
  static auto* const instance = new HandlerHolder;
  return *instance;
}

constexpr std::string_view kMask = "***";
constexpr std::size_t kShortestSecret = 4;
/// So much of the beginning of a secret is masked too: libraries cut long texts short.
constexpr std::size_t kTellingPart = 16;

bool isAlphanumeric(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

bool isLetter(char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; }

bool consistsOf(std::string_view text, std::string_view othersAllowed) {
  for (const char c : text) {
    if (!isAlphanumeric(c) && othersAllowed.find(c) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

/// "host", "host:port" or "[address]:port"; a password that was cut short looks like none of these.
bool isPlainHost(std::string_view text) {
  std::string_view port;
  if (text.starts_with('[')) {
    const auto end = text.find(']');
    if (end == std::string_view::npos || !consistsOf(text.substr(1, end - 1), ":.")) {
      return false;
    }
    port = text.substr(end + 1);
  } else {
    const auto colon = std::min(text.find(':'), text.size());
    if (!consistsOf(text.substr(0, colon), ".-_")) {
      return false;
    }
    port = text.substr(colon);
  }
  return port.empty() ||
         (port.size() <= 6 && port.find_first_not_of("0123456789", 1) == std::string_view::npos && port.front() == ':');
}

/// The leading components of a path that are shown; "***" stands for the last one and for what follows an odd one.
std::string maskedPath(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) {
    path.remove_suffix(1);
  }
  std::string shown = "/";
  std::size_t begin = 1;
  for (auto end = path.find('/', begin); end != std::string_view::npos; end = path.find('/', begin)) {
    const auto component = path.substr(begin, end - begin);
    if (!consistsOf(component, "._-:")) {
      break;
    }
    shown.append(component).append("/");
    begin = end + 1;
  }
  return shown.append(kMask);
}

}  // namespace

void setLogHandler(LogHandler handler) {
  // The former handler is destroyed after the lock is released: it may own anything.
  auto next = handler ? std::make_shared<const LogHandler>(std::move(handler)) : nullptr;
  const std::lock_guard lock(holder().mutex);
  holder().handler.swap(next);
}

void QMZPrintLog(LogLevel level, std::string_view function, int line, std::string_view message) {
  std::shared_ptr<const LogHandler> handler;
  {
    const std::lock_guard lock(holder().mutex);
    handler = holder().handler;
  }
  if (handler) {
    (*handler)(level, function, line, message);
  } else {
    defaultLogHandler(level, function, line, message);
  }
}

void logFormatted(LogLevel level, const char* function, int line, const char* format, ...) {
  std::array<char, 512> brief;
  std::va_list arguments;
  va_start(arguments, format);
  std::va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(brief.data(), brief.size(), format, arguments);
  va_end(arguments);
  if (length < 0) {
    QMZPrintLog(level, function, line, format);
  } else if (static_cast<std::size_t>(length) < brief.size()) {
    QMZPrintLog(level, function, line, {brief.data(), static_cast<std::size_t>(length)});
  } else {
    std::string whole(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(whole.data(), whole.size() + 1, format, again);
    QMZPrintLog(level, function, line, whole);
  }
  va_end(again);
}

std::string describeObject(const char* className, const void* object) {
  std::array<char, 2 + 2 * sizeof(std::uintptr_t) + 1> address;
  std::snprintf(address.data(), address.size(), "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(object)));
  return std::string("<").append(className).append(": ").append(address.data()).append(">");
}

std::string maskedUrl(std::string_view url) {
  if (url.empty()) {
    return {};
  }
  const auto schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos || schemeEnd == 0 || !consistsOf(url.substr(0, schemeEnd), "+-.")) {
    return std::string(kMask);
  }
  const auto shown = std::string(url.substr(0, schemeEnd + 3));
  auto rest = url.substr(schemeEnd + 3);
  const auto authorityEnd = std::min(rest.find_first_of("/?# \t\r\n"), rest.size());
  auto authority = rest.substr(0, authorityEnd);
  rest.remove_prefix(authorityEnd);
  std::string user;
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    user = std::string(kMask) + "@";
    authority.remove_prefix(at + 1);
  }
  // An "@" further on may end a user information with a "/" or "?" in it.
  if (!isPlainHost(authority) || rest.find('@') != std::string_view::npos) {
    return shown + std::string(kMask);
  }
  const std::string host = shown + user + std::string(authority);
  if (rest.empty() || rest == "/") {
    return host + std::string(rest);
  }
  if (!rest.starts_with('/')) {
    return host + "/" + std::string(kMask);
  }
  const auto pathEnd = std::min(rest.find_first_of("?# \t\r\n"), rest.size());
  return host + maskedPath(rest.substr(0, pathEnd));
}

std::string maskSecrets(std::string text, const std::vector<std::string>& secrets) {
  for (const std::string& secret : secrets) {
    if (secret.size() < kShortestSecret) {
      continue;
    }
    const bool isWord = secret.size() <= kTellingPart && std::ranges::all_of(secret, isLetter);
    const auto begin = std::string_view(secret).substr(0, kTellingPart);
    for (std::size_t at = text.find(begin); at != std::string::npos;) {
      const auto from = text.begin() + static_cast<std::ptrdiff_t>(at);
      const auto end = std::mismatch(from, text.end(), secret.begin(), secret.end()).first;
      if (isWord && ((at > 0 && isLetter(text[at - 1])) || (end != text.end() && isLetter(*end)))) {
        at += begin.size();
      } else {
        text.replace(from, end, kMask);
        at += kMask.size();
      }
      at = text.find(begin, at);
    }
  }
  return text;
}

bool sampled(unsigned n) {
  thread_local std::minstd_rand random(std::random_device{}());
  return n != 0 && std::uniform_int_distribution<unsigned>(0, n - 1)(random) == 0;
}

}  // namespace zellive
