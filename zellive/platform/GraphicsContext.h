#pragma once

#include <memory>

#include "zellive/platform/TextureCache.h"

namespace zellive {

enum class GraphicsAPI : int { OpenGLES2 = 2, OpenGLES3 = 3 };

/// An OpenGL ES rendering context. It may be current on one thread at a time; drop the last reference on that thread,
/// or where it is current nowhere.
class GraphicsContext {
 public:
  virtual ~GraphicsContext() = default;

  /// Makes this the calling thread's context; does nothing when it is already. False, with no context current, when the
  /// context is lost or current on another thread. While none is current every OpenGL call does nothing.
  virtual bool makeCurrent() = 0;
  [[nodiscard]] virtual bool isCurrent() const = 0;
  /// The calling thread has no context afterwards; for a thread that is about to end.
  virtual void clearCurrent() = 0;
  /// Shows what was drawn for the window that the context draws to; nothing without a window.
  virtual void presentRenderbuffer() = 0;
  /// Null unless the context is current.
  [[nodiscard]] virtual std::unique_ptr<TextureCache> makeTextureCache() = 0;
};

/// Makes rendering contexts. Thread-safe.
class GraphicsService {
 public:
  virtual ~GraphicsService() = default;

  /// A new context that shares textures and programs with `share`, where one is given. Null where the machine has no
  /// such API, which is logged the first time.
  [[nodiscard]] virtual std::shared_ptr<GraphicsContext> makeContext(
      GraphicsAPI api, const std::shared_ptr<GraphicsContext>& share = nullptr) = 0;
};

}  // namespace zellive
