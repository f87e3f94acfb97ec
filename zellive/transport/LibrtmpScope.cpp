#include "zellive/transport/LibrtmpScope.h"

#include <librtmp/log.h>
#include <pthread.h>

#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string_view>
#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

constexpr int kLevels = 7;

thread_local const Secrets* secretsInForce = nullptr;

void blockSigpipe() {
  thread_local const bool blocked = [] {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGPIPE);
    return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0;
  }();
  static_cast<void>(blocked);
}

LogLevel levelFor(int level) {
  if (level <= RTMP_LOGERROR) {
    return LogLevel::Error;
  }
  return level == RTMP_LOGWARNING ? LogLevel::Warning : LogLevel::Information;
}

[[gnu::format(printf, 2, 0)]] void receiveLog(int level, const char* format, std::va_list arguments) {
  // A format that is nothing but "%s" is a line of a dump, in which a key could not be masked.
  if (level > RTMP_LogGetLevel() || std::string_view(format) == "%s") {
    return;
  }
  std::array<char, 2048> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  const std::string masked = secretsInForce == nullptr ? text.data() : maskSecrets(text.data(), *secretsInForce);
  QMZPrintLog(levelFor(level), "librtmp", 0, "Live: librtmp: " + masked);
}

void takeLogOver() {
  static std::once_flag once;
  std::call_once(once, [] { RTMP_LogSetCallback(receiveLog); });
}

}  // namespace

LibrtmpScope::LibrtmpScope(const Secrets& secrets) : former_(std::exchange(secretsInForce, &secrets)) {
  takeLogOver();
  blockSigpipe();
}

LibrtmpScope::~LibrtmpScope() { secretsInForce = former_; }

void setLibrtmpLogLevel(int level) {
  takeLogOver();
  RTMP_LogSetLevel(static_cast<RTMP_LogLevel>(level < kLevels ? level : 1));
}

int librtmpLogLevel() { return RTMP_LogGetLevel(); }

}  // namespace zellive
