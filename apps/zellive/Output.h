#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/zellive/Troubles.h"
#include "zellive/platform/Log.h"

namespace zellive::tool {

/// How a stream is doing.
struct StreamStatus {
  std::string state;
  std::chrono::duration<double> elapsed{};  ///< Since the program began to connect.
  std::optional<double> bitsPerSecond{};    ///< Of what was sent; none before the first figures.
  std::optional<double> framesPerSecond{};  ///< As above.
  std::int64_t queued = 0;                  ///< Frames waiting to be sent.
  std::int64_t dropped = 0;                 ///< Frames dropped by the send buffer, and pictures that came too fast.
  std::uint64_t encoderBitRate = 0;         ///< What the video encoder is set to, bits per second.
};

/// What is told of a camera or microphone.
enum class DeviceNews { Trouble, Back };

/// Everything that the program says. Status goes to one stream, complaints to another; where both are the same terminal
/// the line that is updated in place stays whole. The stream's key never gets out. Thread-safe.
class Output {
 public:
  enum class Form { Terminal, Lines, Json };

  /// `url` is what must not be shown. With `verbose`, the library's information is shown as well.
  Output(Form form, bool verbose, std::string url, std::FILE* out = stdout, std::FILE* err = stderr);

  /// A remark for people; nothing in JSON.
  void note(std::string_view text);
  void status(const StreamStatus& status);
  void stateChanged(std::uint64_t state, const StreamStatus& status);
  void error(std::uint64_t code, std::string_view text);
  void trouble(const Trouble& trouble);
  void device(DeviceNews news, std::string_view text);
  /// The program has gone to the background, or come back.
  void background(bool inBackground);
  /// The stream is up again.
  void recovered(std::chrono::duration<double> after, const StreamStatus& status);
  /// A message of the library.
  void log(LogLevel level, std::string_view text);
  /// Ends the line that is updated in place.
  void finish();

 private:
  void printLine(std::FILE* stream, const std::string& line);
  [[nodiscard]] std::string presentable(std::string_view text) const;
  void clearLine();

  const Form form_;
  const bool verbose_;
  const std::string url_;
  const std::string shownUrl_;
  const std::vector<std::string> secrets_;
  std::FILE* const out_;
  std::FILE* const err_;
  std::mutex mutex_;
  std::string line_;  ///< What stands on the terminal's last line.
};

/// "00:01:05".
[[nodiscard]] std::string clockText(std::chrono::duration<double> time);
/// "connected", "reconnecting" …
[[nodiscard]] std::string stateName(std::uint64_t state);

}  // namespace zellive::tool
