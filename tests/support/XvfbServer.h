#pragma once

#include <memory>
#include <string>

#include "tests/support/Process.h"
#include "zellive/platform/PixelBuffer.h"

struct _XDisplay;

namespace zellive::test {

/// A real X server without a screen, 24 bits deep, on a display number that is free. DISPLAY names it while this
/// exists; what it was is put back.
class XvfbServer {
 public:
  /// Throws std::runtime_error when it does not start.
  XvfbServer();
  ~XvfbServer();
  XvfbServer(const XvfbServer&) = delete;
  XvfbServer& operator=(const XvfbServer&) = delete;

  /// Whether Xvfb is installed.
  [[nodiscard]] static bool available();
  /// Ends it at once, as a crash would.
  void kill();

 private:
  std::unique_ptr<Process> process_;
  std::string former_;
};

/// Another program of the same screen: it looks, and does what a window manager or a person would do.
class XClient {
 public:
  XClient();
  ~XClient();
  XClient(const XClient&) = delete;
  XClient& operator=(const XClient&) = delete;

  /// The window of that title, or 0.
  [[nodiscard]] unsigned long find(const std::string& title);
  /// What the screen shows of the window, BGRA with alpha 255; null when it cannot be seen.
  [[nodiscard]] std::shared_ptr<PixelBuffer> picture(unsigned long window);
  void resize(unsigned long window, unsigned width, unsigned height);
  void giveFocus(unsigned long window);
  /// As the button in a window's frame does.
  void askToClose(unsigned long window);

 private:
  _XDisplay* display_;
};

}  // namespace zellive::test
