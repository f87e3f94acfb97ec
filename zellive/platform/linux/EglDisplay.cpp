#include "zellive/platform/linux/EglDisplay.h"

#include <array>
#include <cstdio>

namespace zellive {
namespace {

template <typename Function>
Function procedure(const char* name) {
  return reinterpret_cast<Function>(eglGetProcAddress(name));
}

bool start(EGLDisplay handle, EglDisplay& display) {
  if (handle == EGL_NO_DISPLAY || eglInitialize(handle, nullptr, nullptr) == EGL_FALSE) {
    return false;
  }
  // Rendering needs no surface of EGL's: everything is drawn into framebuffer objects.
  const char* extensions = eglQueryString(handle, EGL_EXTENSIONS);
  if (!listHolds(extensions, "EGL_KHR_surfaceless_context")) {
    return false;
  }
  display.handle = handle;
  display.extensions = extensions;
  return true;
}

EGLDisplay platformDisplay(EGLenum platform, void* native) {
  const auto get = procedure<PFNEGLGETPLATFORMDISPLAYEXTPROC>("eglGetPlatformDisplayEXT");
  return get != nullptr ? get(platform, native, nullptr) : EGL_NO_DISPLAY;
}

/// The first device with hardware behind it.
bool startOnDevice(const char* clientExtensions, EglDisplay& display) {
  const bool known = listHolds(clientExtensions, "EGL_EXT_platform_device") &&
                     (listHolds(clientExtensions, "EGL_EXT_device_base") ||
                      (listHolds(clientExtensions, "EGL_EXT_device_enumeration") &&
                       listHolds(clientExtensions, "EGL_EXT_device_query")));
  const auto query = procedure<PFNEGLQUERYDEVICESEXTPROC>("eglQueryDevicesEXT");
  const auto describe = procedure<PFNEGLQUERYDEVICESTRINGEXTPROC>("eglQueryDeviceStringEXT");
  if (!known || query == nullptr || describe == nullptr) {
    return false;
  }
  std::array<EGLDeviceEXT, 16> devices{};
  EGLint count = 0;
  if (query(static_cast<EGLint>(devices.size()), devices.data(), &count) == EGL_FALSE) {
    return false;
  }
  for (EGLint i = 0; i < count; ++i) {
    EGLDeviceEXT device = devices[static_cast<std::size_t>(i)];
    if (!listHolds(describe(device, EGL_EXTENSIONS), "EGL_MESA_device_software") &&
        start(platformDisplay(EGL_PLATFORM_DEVICE_EXT, device), display)) {
      return true;
    }
  }
  return false;
}

}  // namespace

bool listHolds(const char* names, std::string_view name) {
  std::string_view rest = names != nullptr ? names : "";
  while (!rest.empty()) {
    const auto end = std::min(rest.find(' '), rest.size());
    if (rest.substr(0, end) == name) {
      return true;
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return false;
}

EglDisplay EglDisplay::open() {
  EglDisplay display;
  // Null, and with it no platform, where EGL has no client extensions.
  const char* client = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
  if (startOnDevice(client, display)) {
    return display;
  }
  if (listHolds(client, "EGL_MESA_platform_surfaceless") &&
      start(platformDisplay(EGL_PLATFORM_SURFACELESS_MESA, nullptr), display)) {
    return display;
  }
  if (start(eglGetDisplay(EGL_DEFAULT_DISPLAY), display)) {
    return display;
  }
  std::array<char, 96> text{};
  std::snprintf(text.data(), text.size(), "no EGL display can be opened without a window system (EGL error 0x%x)",
                static_cast<unsigned>(eglGetError()));
  display.failure = text.data();
  return display;
}

}  // namespace zellive
