#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <memory>
#include <string>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// A logger of the library's own, unknown to the application's registry; never destroyed, as threads may log while the
/// process exits.
spdlog::logger& logger() {
  static auto* const instance = [] {
    auto* made = new spdlog::logger("zellive", std::make_shared<spdlog::sinks::stderr_color_sink_mt>());
    made->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%-7l%$ %v");
    return made;
  }();
  return *instance;
}

spdlog::level::level_enum spdlogLevel(LogLevel level) {
  switch (level) {
    case LogLevel::Error:
      return spdlog::level::err;
    case LogLevel::Warning:
      return spdlog::level::warn;
    case LogLevel::Information:
      break;
  }
  return spdlog::level::info;
}

}  // namespace

void defaultLogHandler(LogLevel level, std::string_view function, int line, std::string_view message) {
  std::string text;
  text.reserve(message.size() + function.size() + 16);
  for (const char c : message) {
    // One message is one line; a server's answer quoted in it must not draw on the terminal either.
    text.push_back(static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? ' ' : c);
  }
  text.append(" (").append(function).append(":").append(std::to_string(line)).append(")");
  logger().log(spdlogLevel(level), spdlog::string_view_t(text.data(), text.size()));
}

}  // namespace zellive
