#include <cairo.h>

#include <memory>

#include "zellive/platform/Drawing.h"

namespace zellive {
namespace {

struct Destroy {
  void operator()(cairo_t* context) const { cairo_destroy(context); }
  void operator()(cairo_surface_t* surface) const { cairo_surface_destroy(surface); }
};
using Surface = std::unique_ptr<cairo_surface_t, Destroy>;

/// Little-endian machines, the only ones that this runs on, have cairo's 32 bits as B, G, R, A in memory.
Surface surfaceOver(const PixelBuffer& picture) {
  const auto& plane = picture.plane(0);
  return Surface(cairo_image_surface_create_for_data(plane.base, CAIRO_FORMAT_ARGB32, static_cast<int>(plane.width),
                                                     static_cast<int>(plane.height),
                                                     static_cast<int>(plane.bytesPerRow)));
}

/// The view's own: its colour and what it draws, neither beyond its frame.
void drawContents(cairo_t* context, View& view, Size size) {
  cairo_save(context);
  cairo_rectangle(context, 0, 0, size.width, size.height);
  cairo_clip(context);
  if (const auto color = view.backgroundColor(); color.alpha > 0) {
    cairo_set_source_rgba(context, color.red, color.green, color.blue, color.alpha);
    cairo_paint(context);
  }
  cairo_set_source_rgb(context, 0, 0, 0);
  view.draw(context, size);
  cairo_restore(context);
}

void drawView(cairo_t* context, View& view, Point at) {
  const double alpha = view.alpha();
  if (view.hidden() || alpha <= 0) {
    return;
  }
  const auto frame = view.frame();
  cairo_save(context);
  cairo_translate(context, at.x, at.y);
  if (alpha < 1) {
    cairo_push_group(context);
  }
  drawContents(context, view, {frame.width, frame.height});
  for (const auto& subview : view.subviews()) {
    const auto place = subview->frame();
    drawView(context, *subview, {place.x, place.y});
  }
  if (alpha < 1) {
    cairo_pop_group_to_source(context);
    cairo_paint_with_alpha(context, alpha);
  }
  cairo_restore(context);
}

}  // namespace

void renderView(View& view, PixelBuffer& picture) {
  const auto surface = surfaceOver(picture);
  const std::unique_ptr<cairo_t, Destroy> context(cairo_create(surface.get()));
  cairo_set_operator(context.get(), CAIRO_OPERATOR_CLEAR);
  cairo_paint(context.get());
  cairo_set_operator(context.get(), CAIRO_OPERATOR_OVER);
  drawView(context.get(), view, {});
  cairo_surface_flush(surface.get());
}

void drawPicture(cairo_t* context, const PixelBuffer& picture, const Rect& rect) {
  if (rect.width <= 0 || rect.height <= 0 || picture.width() == 0 || picture.height() == 0) {
    return;
  }
  const auto surface = surfaceOver(picture);
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) {
    return;  // With it, the context would draw nothing any more.
  }
  cairo_save(context);
  cairo_translate(context, rect.x, rect.y);
  cairo_scale(context, rect.width / static_cast<double>(picture.width()),
              rect.height / static_cast<double>(picture.height()));
  cairo_set_source_surface(context, surface.get(), 0, 0);
  // Without it the edges of a scaled picture would fade.
  cairo_pattern_set_extend(cairo_get_source(context), CAIRO_EXTEND_PAD);
  cairo_rectangle(context, 0, 0, static_cast<double>(picture.width()), static_cast<double>(picture.height()));
  cairo_fill(context);
  cairo_restore(context);
  // The memory is lent for this call only.
  cairo_surface_finish(surface.get());
}

}  // namespace zellive
