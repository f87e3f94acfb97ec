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
  /// Where "live" records a stream; complete once its publisher has gone.
  [[nodiscard]] std::string recording(const std::string& stream) const;
  [[nodiscard]] std::string errorLog() const;

  /// Ends it politely, publishers included, and waits for the end.
  void stop();
  /// Ends it at once, as a crash would.
  void kill();
  /// Starts it again on the same ports.
  void start();

 private:
  void writeConfiguration() const;

  TemporaryDirectory directory_;
  std::uint16_t rtmpPort_ = 0;
  std::uint16_t httpPort_ = 0;
  std::unique_ptr<Process> process_;
};

/// Waits until a recording no longer grows and its writer has closed it: the publisher is gone for the server as well.
[[nodiscard]] bool waitForRecording(const std::string& path);

}  // namespace zellive::test
