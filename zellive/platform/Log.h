#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace zellive {

enum class LogLevel : int { Error = 0, Warning = 1, Information = 2 };

/// Receives every message of the library. Called on whichever thread logs, possibly on several at once; it must be
/// quick, must not throw, and must not wait for a thread that is in a call of the library's. It may ask a session
/// something and end one, but not push media into one. `message` is valid for the call only.
using LogHandler = std::function<void(LogLevel level, std::string_view function, int line, std::string_view message)>;

/// Hands one message to the handler in force. Thread-safe.
void QMZPrintLog(LogLevel level, std::string_view function, int line, std::string_view message);

/// Takes the messages over; an empty handler brings back the default, which writes them to standard error. A handler
/// may still be running on another thread when this returns. Thread-safe.
void setLogHandler(LogHandler handler);

/// The handler that is in force while no other is set: one line on standard error. Thread-safe.
void defaultLogHandler(LogLevel level, std::string_view function, int line, std::string_view message);

/// printf-style form of QMZPrintLog; use the macro below.
[[gnu::format(printf, 4, 5)]] void logFormatted(LogLevel level, const char* function, int line, const char* format,
                                                ...);

/// "<ClassName: 0x55d0c0ffee00>", the way an object is named in messages.
[[nodiscard]] std::string describeObject(const char* className, const void* object);

/// The URL with its last path component, query and user information replaced by "***": these hold its owner's key.
/// Whatever does not look like a plain URL is replaced from there on.
[[nodiscard]] std::string maskedUrl(std::string_view url);

/// `text` with each secret, also one that was cut short after 16 characters, replaced by "***". Secrets of fewer than
/// four characters hide nothing and are left alone. One of up to 16 letters and nothing else may be an ordinary word:
/// it is left alone inside longer words.
[[nodiscard]] std::string maskSecrets(std::string text, const std::vector<std::string>& secrets);

/// True for about one call in `n`, at random; for messages of hot paths. Thread-safe.
[[nodiscard]] bool sampled(unsigned n);

}  // namespace zellive

/// ZEL_LOG(level, "format", …): logs with the calling function and line.
#define ZEL_LOG(level, ...) ::zellive::logFormatted((level), __func__, __LINE__, __VA_ARGS__)
#define ZEL_LOG_ERROR(...) ZEL_LOG(::zellive::LogLevel::Error, __VA_ARGS__)
#define ZEL_LOG_WARNING(...) ZEL_LOG(::zellive::LogLevel::Warning, __VA_ARGS__)
#define ZEL_LOG_INFO(...) ZEL_LOG(::zellive::LogLevel::Information, __VA_ARGS__)
