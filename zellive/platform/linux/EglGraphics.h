#pragma once

#include <memory>

#include "zellive/platform/GraphicsContext.h"

namespace zellive {

/// OpenGL ES through EGL, without a window system: on a GPU where the machine has one, else on the software renderer.
/// Looks for them when the first context is asked for.
[[nodiscard]] std::shared_ptr<GraphicsService> makeEglGraphics();

}  // namespace zellive
