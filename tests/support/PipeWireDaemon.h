#pragma once

#include <memory>
#include <string>

#include "tests/support/Process.h"

namespace zellive::test {

/// A real PipeWire daemon with a session manager that links streams to devices, in a directory of its own, without
/// D-Bus and without hardware. While it exists, the environment names it to everything that this process connects and
/// starts. One at a time; make it before anything connects. In it, a microphone "zellive-mic" that plays a tone.
class PipeWireDaemon {
 public:
  /// Starts both and waits until the daemon answers. Throws std::runtime_error when it does not.
  PipeWireDaemon();
  ~PipeWireDaemon();
  PipeWireDaemon(const PipeWireDaemon&) = delete;
  PipeWireDaemon& operator=(const PipeWireDaemon&) = delete;
  /// Whether the programs are installed.
  [[nodiscard]] static bool available();

  /// Ends both at once, as a crash would.
  void kill();
  /// Starts both again, in the same place.
  void start();

  struct Camera {
    std::string name = "test-camera";
    std::string format = "NV12";  ///< As GStreamer writes it.
    int width = 1280;
    int height = 720;
    int frameRate = 30;
    std::string pattern = "smpte";
    std::string properties = {};  ///< More of the node's: "api.libcamera.location=front".
  };
  /// A camera of its own process: ending it unplugs the camera. It appears some time later.
  [[nodiscard]] static std::unique_ptr<Process> plugIn(const Camera& camera);

  /// What both have written, for messages.
  [[nodiscard]] std::string log() const;

 private:
  [[nodiscard]] bool answers() const;

  const TemporaryDirectory directory_;
  std::unique_ptr<Process> daemon_;
  std::unique_ptr<Process> manager_;
};

}  // namespace zellive::test
