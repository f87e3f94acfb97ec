#include "zellive/platform/TextView.h"

#include <utility>

namespace zellive {

TextView::TextView(Rect frame, std::string text) : View(frame) { style_.text = std::move(text); }

TextView::Style TextView::style() const {
  const std::lock_guard lock(mutex_);
  return style_;
}

template <typename Edit>
void TextView::edit(Edit&& edit) {
  {
    const std::lock_guard lock(mutex_);
    edit(style_);
  }
  setNeedsDisplay();
}

std::string TextView::text() const { return style().text; }

void TextView::setText(std::string text) {
  if (text != this->text()) {
    edit([&](Style& style) { style.text = std::move(text); });
  }
}

void TextView::setFont(std::string family, double points, bool bold) {
  edit([&](Style& style) {
    style.family = std::move(family);
    style.points = points;
    style.bold = bold;
  });
}

RGBAColor TextView::textColor() const { return style().color; }

void TextView::setTextColor(RGBAColor color) {
  edit([&](Style& style) { style.color = color; });
}

void TextView::setAlignment(TextAlignment alignment) {
  edit([&](Style& style) { style.alignment = alignment; });
}

}  // namespace zellive
