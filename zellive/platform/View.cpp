#include "zellive/platform/View.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace zellive {
namespace {

/// One for all trees: views move from tree to tree, and nothing is done under it but looking at fields.
std::mutex& treeLock() {
  static auto* const mutex = new std::mutex;
  return *mutex;
}

/// A length that can be drawn and compared, whatever was computed; no screen is as long as the longest.
double side(double length) { return std::min(std::max(0.0, length), 1048576.0); }

Rect withSides(const Rect& frame) { return {frame.x, frame.y, side(frame.width), side(frame.height)}; }

}  // namespace

/// What a change means for others. They are told without the lock.
struct View::Change {
  std::vector<DisplayHandler> handlers;
  std::shared_ptr<View> former;  // Ends without the lock, if it must.

  ~Change() {
    for (const auto& handler : handlers) {
      (*handler)();
    }
  }
};

View::View(Rect frame) : frame_(withSides(frame)) {}

View::~View() {
  std::vector<std::shared_ptr<View>> orphans;
  const std::lock_guard lock(treeLock());
  orphans.swap(subviews_);
  for (const auto& view : orphans) {
    view->superview_ = nullptr;
  }
}

void View::touch(Change& change) {
  for (auto* view = this; view != nullptr; view = view->superview_) {
    ++view->contentVersion_;
    if (view->displayHandler_) {
      change.handlers.push_back(view->displayHandler_);
    }
  }
}

template <typename Field>
void View::set(Field View::*field, Field value) {
  Change change;
  const std::lock_guard lock(treeLock());
  if (this->*field != value) {
    this->*field = value;
    touch(change);
  }
}

Rect View::frame() const {
  const std::lock_guard lock(treeLock());
  return frame_;
}

void View::setFrame(Rect frame) {
  Change change;
  const std::lock_guard lock(treeLock());
  if (frame != frame_) {
    resize(withSides(frame));
    touch(change);
  }
}

void View::resize(Rect frame) {
  const auto former = std::exchange(frame_, frame);
  const double wider = frame.width - former.width;
  const double higher = frame.height - former.height;
  if (wider == 0 && higher == 0) {
    return;
  }
  for (const auto& view : subviews_) {
    Rect next = view->frame_;
    next.width += (view->autoresizing_ & ViewAutoresizingFlexibleWidth) != 0 ? wider : 0;
    next.height += (view->autoresizing_ & ViewAutoresizingFlexibleHeight) != 0 ? higher : 0;
    view->resize(withSides(next));
  }
}

unsigned View::autoresizing() const {
  const std::lock_guard lock(treeLock());
  return autoresizing_;
}

void View::setAutoresizing(unsigned flags) {
  const std::lock_guard lock(treeLock());
  autoresizing_ = flags;
}

double View::alpha() const {
  const std::lock_guard lock(treeLock());
  return alpha_;
}

void View::setAlpha(double alpha) { set(&View::alpha_, std::min(std::max(0.0, alpha), 1.0)); }

bool View::hidden() const {
  const std::lock_guard lock(treeLock());
  return hidden_;
}

void View::setHidden(bool hidden) { set(&View::hidden_, hidden); }

RGBAColor View::backgroundColor() const {
  const std::lock_guard lock(treeLock());
  return backgroundColor_;
}

void View::setBackgroundColor(RGBAColor color) { set(&View::backgroundColor_, color); }

std::shared_ptr<View> View::superview() const {
  const std::lock_guard lock(treeLock());
  return superview_ != nullptr ? superview_->weak_from_this().lock() : nullptr;
}

std::vector<std::shared_ptr<View>> View::subviews() const {
  const std::lock_guard lock(treeLock());
  return subviews_;
}

bool View::isWithin(const View& other) const {
  const View* view = this;
  while (view != nullptr && view != &other) {
    view = view->superview_;
  }
  return view != nullptr;
}

void View::detach(Change& change) {
  if (superview_ == nullptr) {
    return;
  }
  auto& siblings = superview_->subviews_;
  const auto found =
      std::find_if(siblings.begin(), siblings.end(), [this](const auto& view) { return view.get() == this; });
  change.former = std::move(*found);
  siblings.erase(found);
  superview_->touch(change);
  superview_ = nullptr;
}

void View::addSubview(const std::shared_ptr<View>& view) { insertSubview(view, static_cast<std::size_t>(-1)); }

void View::insertSubview(const std::shared_ptr<View>& view, std::size_t index) {
  Change change;
  const std::lock_guard lock(treeLock());
  // A circle would never be drawn to its end, and would keep itself alive.
  if (!view || isWithin(*view)) {
    return;
  }
  view->detach(change);
  subviews_.insert(subviews_.begin() + static_cast<std::ptrdiff_t>(std::min(index, subviews_.size())), view);
  view->superview_ = this;
  touch(change);
}

void View::removeFromSuperview() {
  Change change;
  const std::lock_guard lock(treeLock());
  detach(change);
}

void View::setNeedsDisplay() {
  Change change;
  const std::lock_guard lock(treeLock());
  touch(change);
}

std::uint64_t View::contentVersion() const {
  const std::lock_guard lock(treeLock());
  return contentVersion_;
}

void View::setDisplayHandler(std::function<void()> handler) {
  auto next = handler ? std::make_shared<const std::function<void()>>(std::move(handler)) : nullptr;
  const std::lock_guard lock(treeLock());
  displayHandler_.swap(next);
}

void View::draw(cairo_t*, Size) {}

}  // namespace zellive
