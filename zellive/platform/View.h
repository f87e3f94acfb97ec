#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "zellive/platform/Geometry.h"

// What draw() is handed; <cairo.h> says the same, and is what a program that draws includes.
struct _cairo;
typedef struct _cairo cairo_t;

namespace zellive {

/// Components 0…1, not multiplied by alpha.
struct RGBAColor {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 0;
  friend bool operator==(const RGBAColor&, const RGBAColor&) = default;
};

/// Which sides of a view grow and shrink by as much as its superview's do. Flags.
enum ViewAutoresizing : unsigned {
  ViewAutoresizingNone = 0,
  ViewAutoresizingFlexibleWidth = 2,
  ViewAutoresizingFlexibleHeight = 16,
};

/// A rectangle that shows something, and the rectangles in front of it. What is shown is made anew, when it is needed,
/// by whoever shows it: a Window, or renderView().
///
/// Thread-safe. A view keeps its subviews alive, not its superview. Make it with std::make_shared.
class View : public std::enable_shared_from_this<View> {
 public:
  /// `frame`: in points, which are pixels here, from the upper left corner of the superview.
  explicit View(Rect frame = {});
  virtual ~View();
  View(const View&) = delete;
  View& operator=(const View&) = delete;

  [[nodiscard]] Rect frame() const;
  /// Subviews follow as their autoresizing says. Sides below zero count as zero; none is above 2^20.
  void setFrame(Rect frame);
  [[nodiscard]] unsigned autoresizing() const;
  void setAutoresizing(unsigned flags);

  /// 0…1, of the view with its subviews as one; 1 at first.
  [[nodiscard]] double alpha() const;
  void setAlpha(double alpha);
  [[nodiscard]] bool hidden() const;
  void setHidden(bool hidden);
  /// Fills the frame, behind draw(); none at first.
  [[nodiscard]] RGBAColor backgroundColor() const;
  void setBackgroundColor(RGBAColor color);

  /// Null when there is none.
  [[nodiscard]] std::shared_ptr<View> superview() const;
  /// From back to front.
  [[nodiscard]] std::vector<std::shared_ptr<View>> subviews() const;
  /// Puts the view, taken out of where it was, in front of the other subviews.
  ///
  /// A view that is added to itself, or to a view that is within it, stays where it is: the call has no effect. So does
  /// null.
  void addSubview(const std::shared_ptr<View>& view);
  /// The same at a place of one's choice: 0 is behind all others; beyond the last is in front.
  void insertSubview(const std::shared_ptr<View>& view, std::size_t index);
  void removeFromSuperview();

  /// Says that draw() would draw something else than it did last.
  void setNeedsDisplay();
  /// A number that grows with each change of this view, or of one within it, that can be seen.
  [[nodiscard]] std::uint64_t contentVersion() const;
  /// Called after each such change, on the thread that made it; for whoever shows this view, of whom there can be one.
  /// A call under way on another thread is not waited for. Empty: none.
  void setDisplayHandler(std::function<void()> handler);

  /// Draws what the view shows between its background and its subviews; nothing in a plain view. The origin is the
  /// view's upper left corner, `size` its frame's; what lies outside is not seen. Called on the thread of whoever shows
  /// the view, with no lock held, and with everything that the context holds kept for the caller.
  virtual void draw(cairo_t* context, Size size);

 private:
  using DisplayHandler = std::shared_ptr<const std::function<void()>>;
  struct Change;
  template <typename Field>
  void set(Field View::*field, Field value);
  [[nodiscard]] bool isWithin(const View& other) const;
  void resize(Rect frame);
  void detach(Change& change);
  void touch(Change& change);

  // Guarded by one lock for all views.
  Rect frame_;
  unsigned autoresizing_ = ViewAutoresizingNone;
  double alpha_ = 1;
  bool hidden_ = false;
  RGBAColor backgroundColor_;
  View* superview_ = nullptr;
  std::vector<std::shared_ptr<View>> subviews_;
  std::uint64_t contentVersion_ = 1;
  DisplayHandler displayHandler_;
};

}  // namespace zellive
