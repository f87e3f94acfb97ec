#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "tests/support/Process.h"
#include "tests/support/Sockets.h"

namespace zellive::test {

/// A real nginx with its RTMP module on a free loopback port, in a directory of its own. The application "live" records
/// every stream; "closed" lets nobody publish.
class NginxServer {
 public:
  /// Starts it and waits until it answers. Throws std::runtime_error when it does not.
  NginxServer();
  /// Whether nginx and its module are installed.
  [[nodiscard]] static bool available();

  [[nodiscard]] std::uint16_t rtmpPort() const { return rtmpPort_; }
  [[nodiscard]] std::string url(const std::string& stream, const std::string& application = "live") const {
    return "rtmp://127.0.0.1:" + std::to_string(rtmpPort_) + "/" + application + "/" + stream;
  }
  /// Where "live" records a stream.
  [[nodiscard]] std::string recording(const std::string& stream) const {
    return directory_.path() + "/" + stream + ".flv";
  }
  /// The same, once nginx has closed the file: the publisher is gone for the server as well. Throws
  /// std::runtime_error with nginx's log when that does not come about.
  [[nodiscard]] std::string finishedRecording(const std::string& stream) const;

  /// What it has logged.
  [[nodiscard]] std::string log() const { return contentsOf(directory_.path() + "/error.log"); }

  /// Ends it at once, as a crash would.
  void kill();
  /// Starts it again on the same port.
  void start();

 private:
  [[nodiscard]] bool hasOpen(const std::string& path) const;

  const TemporaryDirectory directory_;
  const std::uint16_t rtmpPort_ = freePort();
  std::unique_ptr<Process> process_;
};

}  // namespace zellive::test
