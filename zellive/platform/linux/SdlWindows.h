#pragma once

#include <memory>

#include "zellive/platform/Window.h"

namespace zellive {

/// Windows on X11 or Wayland, whichever the machine has when one is made. One thread talks to the window system; it
/// starts with the first window, and the connection lasts as long as there is a window.
[[nodiscard]] std::shared_ptr<WindowService> makeSdlWindows();

}  // namespace zellive
