#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <string>
#include <string_view>

namespace zellive {

/// Whether a list of names parted by spaces holds `name` as a whole word; false for null.
[[nodiscard]] bool listHolds(const char* names, std::string_view name);

/// A display that renders without a window system, found by what the drivers say they can do. Lives to the end of the
/// process: contexts may be dropped at any time.
struct EglDisplay {
  EGLDisplay handle = EGL_NO_DISPLAY;
  const char* extensions = nullptr;
  /// Why there is no display; empty when there is one.
  std::string failure;

  [[nodiscard]] static EglDisplay open();
};

}  // namespace zellive
