#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "apps/zellive/PictureSize.h"

namespace zellive::tool {

/// What `zellive publish` was asked to do. Empty fields mean "as the source or the quality says".
struct PublishOptions {
  std::string url;
  std::string input;  ///< A file; empty for the test card and for devices.
  bool loop = false;
  std::optional<std::string> camera;      ///< Its name; empty for the machine's first.
  std::optional<std::string> microphone;  ///< As above.
  bool mirror = false;
  std::int64_t orientation = 4;  ///< As ZelLiveVideoConfiguration has it; this one shows the picture as it comes.
  bool preview = false;
  std::string watermark;  ///< A PNG file; empty for none.
  bool pauseUnfocused = false;
  std::uint64_t quality = 1;
  std::optional<PictureSize> size;
  std::optional<std::uint64_t> framesPerSecond;
  std::optional<std::uint64_t> bitRate;  ///< Bits per second.
  bool adaptive = false;
  std::int64_t denoise = 0;
  std::optional<std::chrono::duration<double>> duration;
  std::string encoder;
  std::string preset;
  std::uint64_t reconnectInterval = 5;  ///< Seconds.
  std::uint64_t reconnectCount = 3;
  bool json = false;
  bool verbose = false;

  /// Whether devices are published, rather than media that is pushed.
  [[nodiscard]] bool captures() const { return camera || microphone; }
};

/// What `zellive devices` was asked to do.
struct DevicesOptions {
  bool json = false;
};

/// Text to print and the status to end with: help, the version, or what is wrong with the command line.
struct Farewell {
  int status = 0;
  std::string text;
};

/// Understands `arguments` (without the program's name). Prints nothing.
[[nodiscard]] std::variant<PublishOptions, DevicesOptions, Farewell> parseCommandLine(
    std::vector<std::string> arguments);

/// "1500000", "1500k" or "1.5M" as bits per second.
[[nodiscard]] std::optional<std::uint64_t> parseBitRate(const std::string& text);
/// "1280x720".
[[nodiscard]] std::optional<PictureSize> parseSize(const std::string& text);

}  // namespace zellive::tool
