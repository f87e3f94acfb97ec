#include <pango/pangocairo.h>

#include <algorithm>
#include <memory>

#include "zellive/platform/TextView.h"

namespace zellive {
namespace {

struct Release {
  void operator()(cairo_t* context) const { cairo_destroy(context); }
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
  void operator()(PangoLayout* layout) const { g_object_unref(layout); }
  void operator()(PangoFontDescription* font) const { pango_font_description_free(font); }
};
template <typename T>
using Owned = std::unique_ptr<T, Release>;

constexpr double kLargestFont = 4096;

}  // namespace

/// A text laid out for a context.
class TextView::Layout {
 public:
  Layout(cairo_t* context, const Style& style) : layout_(pango_cairo_create_layout(context)) {
    const Owned<PangoFontDescription> font(pango_font_description_new());
    pango_font_description_set_family(font.get(), style.family.c_str());
    // A point is a pixel here, whatever the screen's resolution.
    pango_font_description_set_absolute_size(font.get(), std::clamp(style.points, 1.0, kLargestFont) * PANGO_SCALE);
    pango_font_description_set_weight(font.get(), style.bold ? PANGO_WEIGHT_BOLD : PANGO_WEIGHT_NORMAL);
    pango_layout_set_font_description(layout_.get(), font.get());
    pango_layout_set_text(layout_.get(), style.text.data(), static_cast<int>(style.text.size()));
    pango_layout_set_alignment(layout_.get(), style.alignment == TextAlignment::Left     ? PANGO_ALIGN_LEFT
                                              : style.alignment == TextAlignment::Center ? PANGO_ALIGN_CENTER
                                                                                         : PANGO_ALIGN_RIGHT);
  }
  [[nodiscard]] PangoLayout* get() const { return layout_.get(); }

 private:
  const Owned<PangoLayout> layout_;
};

Size TextView::sizeThatFits() const {
  const Owned<cairo_surface_t> surface(cairo_image_surface_create(CAIRO_FORMAT_A8, 1, 1));
  const Owned<cairo_t> context(cairo_create(surface.get()));
  const Layout layout(context.get(), style());
  int width = 0;
  int height = 0;
  pango_layout_get_pixel_size(layout.get(), &width, &height);
  return {static_cast<double>(width), static_cast<double>(height)};
}

void TextView::draw(cairo_t* context, Size size) {
  const auto style = this->style();
  const Layout layout(context, style);
  pango_layout_set_width(layout.get(), static_cast<int>(std::min(size.width, 1e6) * PANGO_SCALE));
  pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
  const auto& color = style.color;
  cairo_set_source_rgba(context, color.red, color.green, color.blue, color.alpha);
  cairo_move_to(context, 0, 0);
  pango_cairo_show_layout(context, layout.get());
}

}  // namespace zellive
