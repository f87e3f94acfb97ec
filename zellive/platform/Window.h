#pragma once

#include <memory>
#include <string>

#include "zellive/platform/Geometry.h"
#include "zellive/platform/Queue.h"
#include "zellive/platform/View.h"

namespace zellive {

class Window;

/// Hears what happens to a window, on the queue that it was set with and in the order in which it happened.
class WindowDelegate {
 public:
  virtual ~WindowDelegate() = default;
  /// Its content view has that size already.
  virtual void windowDidResize(const std::shared_ptr<Window>&, Size) {}
  /// The person wants it closed. It stays open until the application calls close() or drops it.
  virtual void windowShouldClose(const std::shared_ptr<Window>&) {}
  /// It has the keyboard, or no longer has it.
  virtual void windowDidBecomeKey(const std::shared_ptr<Window>&) {}
  virtual void windowDidResignKey(const std::shared_ptr<Window>&) {}
  /// It can be seen, or not: it was hidden, or made an icon.
  virtual void windowDidShow(const std::shared_ptr<Window>&) {}
  virtual void windowDidHide(const std::shared_ptr<Window>&) {}
  /// The window system took it away. It counts as closed.
  virtual void windowDidVanish(const std::shared_ptr<Window>&) {}
};

/// A window on the person's screen, which shows a view and all within it over black. It draws itself on a thread of the
/// windows' own whenever something in it has changed; where changes come faster than it can draw, it leaves some out.
///
/// Thread-safe; nothing waits for the window system. It closes when the last reference goes.
class Window {
 public:
  virtual ~Window() = default;

  /// Never null; as large as the window, a plain view at first.
  [[nodiscard]] virtual std::shared_ptr<View> contentView() const = 0;
  /// Gives the view the window's size now and from now on, and takes its display handler over. Null: a plain view.
  virtual void setContentView(std::shared_ptr<View> view) = 0;
  /// Held weakly. What happened before it is set is not told.
  virtual void setDelegate(std::weak_ptr<WindowDelegate> delegate, std::shared_ptr<Queue> queue) = 0;

  [[nodiscard]] virtual std::string title() const = 0;
  virtual void setTitle(std::string title) = 0;
  /// Of what it shows, in points, which are pixels here.
  [[nodiscard]] virtual Size size() const = 0;
  /// A wish: the window system may give another, or none. size() and the content view follow what it gives.
  virtual void setSize(Size size) = 0;
  /// Whether it can be seen, as the window system says.
  [[nodiscard]] virtual bool visible() const = 0;
  virtual void setVisible(bool visible) = 0;
  /// Whether it has the keyboard.
  [[nodiscard]] virtual bool isKey() const = 0;
  /// For good.
  virtual void close() = 0;
};

struct WindowOptions {
  std::string title;
  Size size{640, 480};
  bool resizable = true;
  bool visible = true;
  /// Set from the start, so that nothing is missed.
  std::weak_ptr<WindowDelegate> delegate = {};
  std::shared_ptr<Queue> queue = {};
};

/// Makes windows. Thread-safe.
class WindowService {
 public:
  virtual ~WindowService() = default;
  /// Null, with one log line that says why, where no window can be made: there is no display, for one. Waits for the
  /// window system, a moment as a rule.
  [[nodiscard]] virtual std::shared_ptr<Window> makeWindow(const WindowOptions& options) = 0;
};

}  // namespace zellive
