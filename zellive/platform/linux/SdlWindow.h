#pragma once

#include <SDL.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "zellive/platform/Window.h"

namespace zellive {

class SdlLoop;

/// What a Window is behind the reference that the application holds. The loop keeps it while it is open.
class SdlWindow : public Window, public std::enable_shared_from_this<SdlWindow> {
 public:
  explicit SdlWindow(std::shared_ptr<SdlLoop> loop);

  [[nodiscard]] std::shared_ptr<View> contentView() const override;
  void setContentView(std::shared_ptr<View> view) override;
  void setDelegate(std::weak_ptr<WindowDelegate> delegate, std::shared_ptr<Queue> queue) override;
  [[nodiscard]] std::string title() const override;
  void setTitle(std::string title) override;
  [[nodiscard]] Size size() const override;
  void setSize(Size size) override;
  [[nodiscard]] bool visible() const override;
  void setVisible(bool visible) override;
  [[nodiscard]] bool isKey() const override;
  void close() override;

  // The rest belongs to the loop's thread.

  /// False, with the reason, when it cannot be made.
  [[nodiscard]] bool open(const WindowOptions& options, std::string& failure);
  [[nodiscard]] SDL_Window* handle() const { return window_; }
  [[nodiscard]] std::uint32_t id() const { return id_; }
  /// The reference that the application holds, which its delegate is given.
  void setReference(std::weak_ptr<Window> reference) { reference_ = std::move(reference); }
  void handleEvent(const SDL_WindowEvent& event);
  void drawIfNeeded();
  void destroy();
  /// The window system has gone, and the window with it.
  void vanish();

 private:
  using Message = void (WindowDelegate::*)(const std::shared_ptr<Window>&);
  void tell(std::function<void(WindowDelegate&, const std::shared_ptr<Window>&)> message);
  void tell(Message message);
  void needsDisplay();
  void resized(Size size);
  void setFlag(bool SdlWindow::*flag, bool value, Message whenTrue, Message whenFalse);
  /// Runs `task` with the window on the loop's thread, if it is still open then.
  void onLoop(std::function<void(SDL_Window*)> task);

  const std::shared_ptr<SdlLoop> loop_;
  std::atomic<bool> needsDisplay_ = true;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<View> contentView_;
  std::weak_ptr<WindowDelegate> delegate_;
  std::shared_ptr<Queue> queue_;
  std::string title_;
  Size size_;
  bool visible_ = false;
  bool isKey_ = false;

  // On the loop's thread.
  SDL_Window* window_ = nullptr;
  std::uint32_t id_ = 0;
  std::weak_ptr<Window> reference_;
  bool undrawableTold_ = false;
};

}  // namespace zellive
