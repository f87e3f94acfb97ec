#pragma once

#include <mutex>
#include <string>

#include "zellive/platform/View.h"

namespace zellive {

enum class TextAlignment { Left, Center, Right };

/// Lines of text, from the top of the view down, broken between words where they are too long for it. Any script that
/// the machine has fonts for. Thread-safe.
class TextView : public View {
 public:
  /// `text`: UTF-8; line feeds begin new lines.
  explicit TextView(Rect frame = {}, std::string text = {});

  [[nodiscard]] std::string text() const;
  void setText(std::string text);
  /// "Sans" and 24 points at first. A family that the machine does not have gives its nearest.
  void setFont(std::string family, double points, bool bold = false);
  /// White at first.
  [[nodiscard]] RGBAColor textColor() const;
  void setTextColor(RGBAColor color);
  void setAlignment(TextAlignment alignment);

  /// What the text takes up without being broken, in whole points, rounded up.
  [[nodiscard]] Size sizeThatFits() const;
  void draw(cairo_t* context, Size size) override;

 private:
  struct Style {
    std::string text;
    std::string family = "Sans";
    double points = 24;
    bool bold = false;
    RGBAColor color{1, 1, 1, 1};
    TextAlignment alignment = TextAlignment::Left;
  };
  class Layout;
  [[nodiscard]] Style style() const;
  template <typename Edit>
  void edit(Edit&& edit);

  mutable std::mutex mutex_;
  Style style_;  // Guarded by mutex_.
};

}  // namespace zellive
