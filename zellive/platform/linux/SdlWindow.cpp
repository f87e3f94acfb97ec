#include "zellive/platform/linux/SdlWindow.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "zellive/platform/Drawing.h"
#include "zellive/platform/Log.h"
#include "zellive/platform/linux/SdlLoop.h"

namespace zellive {
namespace {

std::shared_ptr<PixelBuffer> pictureOver(const SDL_Surface& surface) {
  return PixelBuffer::wrap(PixelFormat::BGRA, static_cast<std::size_t>(surface.w), static_cast<std::size_t>(surface.h),
                           {static_cast<std::uint8_t*>(surface.pixels)}, {static_cast<std::size_t>(surface.pitch)});
}

/// Draws where the window system takes its pixels from, or, where those are of another kind, beside it.
bool drawInto(SDL_Surface& surface, View& view) {
  const auto format = surface.format->format;
  if (format == SDL_PIXELFORMAT_RGB888 || format == SDL_PIXELFORMAT_ARGB8888) {
    const auto picture = pictureOver(surface);
    if (picture) {
      renderView(view, *picture);
    }
    return picture != nullptr;
  }
  const auto picture =
      PixelBuffer::create(PixelFormat::BGRA, static_cast<std::size_t>(surface.w), static_cast<std::size_t>(surface.h));
  if (!picture) {
    return false;
  }
  renderView(view, *picture);
  const auto& plane = picture->plane(0);
  return SDL_ConvertPixels(surface.w, surface.h, SDL_PIXELFORMAT_RGB888, plane.base,
                           static_cast<int>(plane.bytesPerRow), format, surface.pixels, surface.pitch) == 0;
}

int wholePixels(double side) { return side > 1 ? static_cast<int>(std::lround(std::min(side, 16384.0))) : 1; }

}  // namespace

SdlWindow::SdlWindow(std::shared_ptr<SdlLoop> loop) : loop_(std::move(loop)) {}

bool SdlWindow::open(const WindowOptions& options, std::string& failure) {
  std::uint32_t flags = 0;
  if (!options.visible) {
    flags |= SDL_WINDOW_HIDDEN;
  }
  if (options.resizable) {
    flags |= SDL_WINDOW_RESIZABLE;
  }
  window_ = SDL_CreateWindow(options.title.c_str(), SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED,
                             wholePixels(options.size.width), wholePixels(options.size.height), flags);
  if (window_ == nullptr) {
    failure = SDL_GetError();
    return false;
  }
  id_ = SDL_GetWindowID(window_);
  int width = 0;
  int height = 0;
  SDL_GetWindowSize(window_, &width, &height);
  {
    const std::lock_guard lock(mutex_);
    title_ = options.title;
    delegate_ = options.delegate;
    queue_ = options.queue;
    size_ = {static_cast<double>(width), static_cast<double>(height)};
  }
  setContentView(nullptr);
  return true;
}

std::shared_ptr<View> SdlWindow::contentView() const {
  const std::lock_guard lock(mutex_);
  return contentView_;
}

void SdlWindow::setContentView(std::shared_ptr<View> view) {
  if (!view) {
    view = std::make_shared<View>();
  }
  auto former = view;
  Size size;
  {
    const std::lock_guard lock(mutex_);
    contentView_.swap(former);
    size = size_;
  }
  if (former && former != view) {
    former->setDisplayHandler({});
  }
  view->setDisplayHandler([weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->needsDisplay();
    }
  });
  view->setFrame({0, 0, size.width, size.height});
  needsDisplay();
}

void SdlWindow::needsDisplay() {
  if (!needsDisplay_.exchange(true)) {
    loop_->wake();
  }
}

void SdlWindow::setDelegate(std::weak_ptr<WindowDelegate> delegate, std::shared_ptr<Queue> queue) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
  queue_ = std::move(queue);
}

std::string SdlWindow::title() const {
  const std::lock_guard lock(mutex_);
  return title_;
}

void SdlWindow::setTitle(std::string title) {
  {
    const std::lock_guard lock(mutex_);
    title_ = title;
  }
  onLoop([title = std::move(title)](SDL_Window* window) { SDL_SetWindowTitle(window, title.c_str()); });
}

Size SdlWindow::size() const {
  const std::lock_guard lock(mutex_);
  return size_;
}

void SdlWindow::setSize(Size size) {
  onLoop([size](SDL_Window* window) { SDL_SetWindowSize(window, wholePixels(size.width), wholePixels(size.height)); });
}

bool SdlWindow::visible() const {
  const std::lock_guard lock(mutex_);
  return visible_;
}

void SdlWindow::setVisible(bool visible) {
  onLoop([visible](SDL_Window* window) { visible ? SDL_ShowWindow(window) : SDL_HideWindow(window); });
}

bool SdlWindow::isKey() const {
  const std::lock_guard lock(mutex_);
  return isKey_;
}

void SdlWindow::close() {
  loop_->post([self = shared_from_this()] { self->loop_->remove(*self); });
}

void SdlWindow::onLoop(std::function<void(SDL_Window*)> task) {
  loop_->post([self = shared_from_this(), task = std::move(task)] {
    if (self->window_ != nullptr) {
      task(self->window_);
    }
  });
}

void SdlWindow::handleEvent(const SDL_WindowEvent& event) {
  switch (event.event) {
    case SDL_WINDOWEVENT_SIZE_CHANGED:
      resized({static_cast<double>(event.data1), static_cast<double>(event.data2)});
      break;
    case SDL_WINDOWEVENT_EXPOSED:
      needsDisplay_ = true;
      break;
    case SDL_WINDOWEVENT_SHOWN:
    case SDL_WINDOWEVENT_RESTORED:
      needsDisplay_ = true;
      setFlag(&SdlWindow::visible_, true, &WindowDelegate::windowDidShow, nullptr);
      break;
    case SDL_WINDOWEVENT_HIDDEN:
    case SDL_WINDOWEVENT_MINIMIZED:
      setFlag(&SdlWindow::visible_, false, nullptr, &WindowDelegate::windowDidHide);
      break;
    case SDL_WINDOWEVENT_FOCUS_GAINED:
      setFlag(&SdlWindow::isKey_, true, &WindowDelegate::windowDidBecomeKey, nullptr);
      break;
    case SDL_WINDOWEVENT_FOCUS_LOST:
      setFlag(&SdlWindow::isKey_, false, nullptr, &WindowDelegate::windowDidResignKey);
      break;
    case SDL_WINDOWEVENT_CLOSE:
      tell(&WindowDelegate::windowShouldClose);
      break;
    default:
      break;
  }
}

void SdlWindow::resized(Size size) {
  std::shared_ptr<View> view;
  {
    const std::lock_guard lock(mutex_);
    if (size == size_) {
      return;
    }
    size_ = size;
    view = contentView_;
  }
  view->setFrame({0, 0, size.width, size.height});
  needsDisplay_ = true;
  tell([size](WindowDelegate& delegate, const std::shared_ptr<Window>& window) {
    delegate.windowDidResize(window, size);
  });
}

void SdlWindow::setFlag(bool SdlWindow::*flag, bool value, Message whenTrue, Message whenFalse) {
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(this->*flag, value) == value) {
      return;
    }
  }
  tell(value ? whenTrue : whenFalse);
}

void SdlWindow::tell(Message message) {
  tell([message](WindowDelegate& delegate, const std::shared_ptr<Window>& window) { (delegate.*message)(window); });
}

void SdlWindow::tell(std::function<void(WindowDelegate&, const std::shared_ptr<Window>&)> message) {
  std::weak_ptr<WindowDelegate> delegate;
  std::shared_ptr<Queue> queue;
  {
    const std::lock_guard lock(mutex_);
    delegate = delegate_;
    queue = queue_;
  }
  if (!queue) {
    return;
  }
  queue->async([delegate, window = reference_, message = std::move(message)] {
    const auto receiver = delegate.lock();
    const auto reference = window.lock();
    if (receiver && reference) {
      message(*receiver, reference);
    }
  });
}

void SdlWindow::drawIfNeeded() {
  if (!visible() || !needsDisplay_.exchange(false)) {
    return;
  }
  const auto view = contentView();
  // Another one after each resize.
  SDL_Surface* const surface = SDL_GetWindowSurface(window_);
  const bool drawn = surface != nullptr && drawInto(*surface, *view) && SDL_UpdateWindowSurface(window_) == 0;
  if (!drawn && !std::exchange(undrawableTold_, true)) {
    ZEL_LOG_WARNING("Live: the window \"%s\" cannot be drawn: %s", title().c_str(), SDL_GetError());
  }
}

void SdlWindow::destroy() {
  SDL_DestroyWindow(std::exchange(window_, nullptr));
  setFlag(&SdlWindow::isKey_, false, nullptr, &WindowDelegate::windowDidResignKey);
  setFlag(&SdlWindow::visible_, false, nullptr, &WindowDelegate::windowDidHide);
}

void SdlWindow::vanish() {
  window_ = nullptr;
  setFlag(&SdlWindow::isKey_, false, nullptr, &WindowDelegate::windowDidResignKey);
  setFlag(&SdlWindow::visible_, false, nullptr, &WindowDelegate::windowDidHide);
  tell(&WindowDelegate::windowDidVanish);
}

}  // namespace zellive
