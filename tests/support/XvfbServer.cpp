#include "tests/support/XvfbServer.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

/// A window may go between finding it and asking about it.
int ignoreError(Display*, XErrorEvent*) { return 0; }

}  // namespace

bool XvfbServer::available() { return access("/usr/bin/Xvfb", X_OK) == 0; }

XvfbServer::XvfbServer() {
  process_ = std::make_unique<Process>(
      std::vector<std::string>{"/usr/bin/Xvfb", "-displayfd", "1", "-screen", "0", "800x600x24", "-nolisten", "tcp"});
  // It writes its number when it is ready for clients.
  if (!waitUntil([&] { return process_->output().find('\n') != std::string::npos || process_->waitFor(0ms); }, 30s) ||
      process_->output().empty()) {
    throw std::runtime_error("Xvfb does not start: " + process_->errors());
  }
  const char* const former = std::getenv("DISPLAY");
  former_ = former != nullptr ? former : "";
  setenv("DISPLAY", (":" + process_->output().substr(0, process_->output().find('\n'))).c_str(), 1);
}

XvfbServer::~XvfbServer() {
  former_.empty() ? unsetenv("DISPLAY") : setenv("DISPLAY", former_.c_str(), 1);
  process_->signal(SIGTERM);
  (void)process_->waitFor(10s);
}

void XvfbServer::kill() {
  process_->signal(SIGKILL);
  (void)process_->waitFor(10s);
}

XClient::XClient() : display_(XOpenDisplay(nullptr)) {
  if (display_ == nullptr) {
    throw std::runtime_error("the X server does not let us in");
  }
  XSetErrorHandler(ignoreError);
}

XClient::~XClient() { XCloseDisplay(display_); }

unsigned long XClient::find(const std::string& title) {
  Window root = 0;
  Window parent = 0;
  Window* children = nullptr;
  unsigned count = 0;
  XQueryTree(display_, DefaultRootWindow(display_), &root, &parent, &children, &count);
  Window found = 0;
  for (unsigned i = 0; i < count; ++i) {
    char* name = nullptr;
    if (XFetchName(display_, children[i], &name) != 0 && name != nullptr) {
      found = title == name ? children[i] : found;
      XFree(name);
    }
  }
  if (children != nullptr) {
    XFree(children);
  }
  return found;
}

std::shared_ptr<PixelBuffer> XClient::picture(unsigned long window) {
  XWindowAttributes attributes{};
  if (XGetWindowAttributes(display_, window, &attributes) == 0 || attributes.map_state != IsViewable) {
    return nullptr;
  }
  const auto width = static_cast<unsigned>(attributes.width);
  const auto height = static_cast<unsigned>(attributes.height);
  XImage* const image = XGetImage(display_, window, 0, 0, width, height, AllPlanes, ZPixmap);
  if (image == nullptr) {
    return nullptr;
  }
  auto picture = PixelBuffer::create(PixelFormat::BGRA, width, height);
  for (unsigned y = 0; y < height; ++y) {
    for (unsigned x = 0; x < width; ++x) {
      const auto value = XGetPixel(image, static_cast<int>(x), static_cast<int>(y));
      auto* const at = picture->plane(0).base + y * picture->plane(0).bytesPerRow + std::size_t{x} * 4;
      at[0] = static_cast<std::uint8_t>(value);
      at[1] = static_cast<std::uint8_t>(value >> 8);
      at[2] = static_cast<std::uint8_t>(value >> 16);
      at[3] = 255;
    }
  }
  XDestroyImage(image);
  return picture;
}

void XClient::resize(unsigned long window, unsigned width, unsigned height) {
  XResizeWindow(display_, window, width, height);
  XSync(display_, 0);
}

void XClient::giveFocus(unsigned long window) {
  XSetInputFocus(display_, window, RevertToNone, CurrentTime);
  XSync(display_, 0);
}

void XClient::askToClose(unsigned long window) {
  XEvent event{};
  event.xclient.type = ClientMessage;
  event.xclient.window = window;
  event.xclient.message_type = XInternAtom(display_, "WM_PROTOCOLS", 0);
  event.xclient.format = 32;
  event.xclient.data.l[0] = static_cast<long>(XInternAtom(display_, "WM_DELETE_WINDOW", 0));
  XSendEvent(display_, window, 0, NoEventMask, &event);
  XSync(display_, 0);
}

}  // namespace zellive::test
