#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/Process.h"

namespace zellive::test {

/// A real nginx with its RTMP module on free loopback ports, in a directory of its own. The application "live" records
/// every stream; "closed" refuses to let anybody publish.
class NginxServer {
 public:
  /// Starts it and waits until it answers. Throws std::runtime_error when it does not.
  NginxServer();
  /// Whether nginx and its module are installed.
  [[nodiscard]] static bool available();

  [[nodiscard]] std::uint16_t rtmpPort() const { return rtmpPort_; }
  [[nodiscard]] std::string url(const std::string& stream, const std::string& application = "live") const;
  /// Where "live" records a stream.
  [[nodiscard]] std::string recording(const std::string& stream) const;
  /// The same, once nginx has closed the file: the publisher is gone for the server as well. Throws
  /// std::runtime_error with nginx's log when that does not come about.
  [[nodiscard]] std::string finishedRecording(const std::string& stream) const;

  /// Ends it at once, as a crash would.
  void kill();
  /// Starts it again on the same ports.
  void start();

 private:
  [[nodiscard]] std::string errorLog() const;
  [[nodiscard]] bool hasOpen(const std::string& path) const;

  TemporaryDirectory directory_;
  std::uint16_t rtmpPort_ = 0;
  std::uint16_t httpPort_ = 0;
  std::unique_ptr<Process> process_;
};

}  // namespace zellive::test
