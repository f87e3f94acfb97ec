#include "zellive/platform/linux/EglGraphics.h"

#include <array>
#include <mutex>

#include "zellive/platform/Log.h"
#include "zellive/platform/linux/EglDisplay.h"
#include "zellive/platform/linux/GlTextureCache.h"

namespace zellive {
namespace {

class EglContext : public GraphicsContext, public std::enable_shared_from_this<EglContext> {
 public:
  EglContext(EGLDisplay display, EGLContext handle) : display_(display), handle_(handle) {}
  ~EglContext() override {
    if (isCurrent()) {
      clearCurrent();
    }
    eglDestroyContext(display_, handle_);
  }
  EglContext(const EglContext&) = delete;
  EglContext& operator=(const EglContext&) = delete;

  bool makeCurrent() override {
    if (isCurrent()) {
      return true;
    }
    eglBindAPI(EGL_OPENGL_ES_API);
    if (eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, handle_) == EGL_TRUE) {
      return true;
    }
    const EGLint error = eglGetError();
    std::call_once(failureTold_, [error] {
      ZEL_LOG_ERROR("Live: the rendering context cannot be used (EGL error 0x%x); nothing is drawn with it",
                    static_cast<unsigned>(error));
    });
    clearCurrent();
    return false;
  }
  [[nodiscard]] bool isCurrent() const override { return eglGetCurrentContext() == handle_; }
  void clearCurrent() override { eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT); }

  void presentRenderbuffer() override {
    if (isCurrent() && eglGetCurrentSurface(EGL_DRAW) != EGL_NO_SURFACE) {
      eglSwapBuffers(display_, eglGetCurrentSurface(EGL_DRAW));
    }
  }

  std::unique_ptr<TextureCache> makeTextureCache() override {
    return isCurrent() ? makeGlTextureCache(shared_from_this()) : nullptr;
  }

  [[nodiscard]] EGLContext handle() const { return handle_; }

 private:
  const EGLDisplay display_;
  const EGLContext handle_;
  std::once_flag failureTold_;
};

class EglGraphics : public GraphicsService {
 public:
  std::shared_ptr<GraphicsContext> makeContext(GraphicsAPI api,
                                               const std::shared_ptr<GraphicsContext>& share) override {
    const std::lock_guard lock(mutex_);
    if (!opened_) {
      opened_ = true;
      display_ = EglDisplay::open();
      if (!display_.failure.empty()) {
        ZEL_LOG_WARNING("Live: no OpenGL ES on this machine, pictures are not drawn: %s", display_.failure.c_str());
      }
    }
    if (display_.handle == EGL_NO_DISPLAY) {
      return nullptr;
    }
    eglBindAPI(EGL_OPENGL_ES_API);
    const auto* other = dynamic_cast<const EglContext*>(share.get());
    const EGLContext sharing = other != nullptr ? other->handle() : EGL_NO_CONTEXT;
    // A driver that is not asked to report the loss of a context may end the process instead.
    std::array<EGLint, 5> attributes{EGL_CONTEXT_CLIENT_VERSION, static_cast<EGLint>(api),
                                     EGL_CONTEXT_OPENGL_RESET_NOTIFICATION_STRATEGY_EXT, EGL_LOSE_CONTEXT_ON_RESET_EXT,
                                     EGL_NONE};
    EGLContext handle = EGL_NO_CONTEXT;
    if (listHolds(display_.extensions, "EGL_EXT_create_context_robustness")) {
      handle = eglCreateContext(display_.handle, config(api), sharing, attributes.data());
    }
    if (handle == EGL_NO_CONTEXT) {
      attributes[2] = EGL_NONE;
      handle = eglCreateContext(display_.handle, config(api), sharing, attributes.data());
    }
    if (handle == EGL_NO_CONTEXT) {
      ZEL_LOG_ERROR("Live: no rendering context of OpenGL ES %d: EGL error 0x%x", static_cast<int>(api),
                    static_cast<unsigned>(eglGetError()));
      return nullptr;
    }
    return std::make_shared<EglContext>(display_.handle, handle);
  }

 private:
  [[nodiscard]] EGLConfig config(GraphicsAPI api) const {
    if (listHolds(display_.extensions, "EGL_KHR_no_config_context")) {
      return EGL_NO_CONFIG_KHR;
    }
    const EGLint renderable = api == GraphicsAPI::OpenGLES3 ? EGL_OPENGL_ES3_BIT : EGL_OPENGL_ES2_BIT;
    const std::array<EGLint, 11> wanted{EGL_SURFACE_TYPE,    0,          EGL_RED_SIZE,  8, EGL_GREEN_SIZE, 8,
                                        EGL_RENDERABLE_TYPE, renderable, EGL_BLUE_SIZE, 8, EGL_NONE};
    EGLConfig found = nullptr;
    EGLint count = 0;
    eglChooseConfig(display_.handle, wanted.data(), &found, 1, &count);
    return found;
  }

  std::mutex mutex_;
  bool opened_ = false;
  EglDisplay display_;
};

}  // namespace

std::shared_ptr<GraphicsService> makeEglGraphics() { return std::make_shared<EglGraphics>(); }

}  // namespace zellive
