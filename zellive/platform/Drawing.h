#pragma once

#include <memory>

#include "zellive/platform/PixelBuffer.h"
#include "zellive/platform/View.h"

namespace zellive {

/// Draws a view and all within it on the calling thread, from the upper left corner of `picture`, which is BGRA: what
/// was there goes; where nothing is drawn it is transparent. Components come out multiplied by alpha. The place of the
/// view in its superview does not matter.
void renderView(View& view, PixelBuffer& picture);

/// For use in View::draw: draws a BGRA picture, components multiplied by alpha, into `rect` of the context. It is
/// scaled where its size is another. One of no size, of a side above 32767 or with rows that begin at no multiple of
/// four bytes is left out.
void drawPicture(cairo_t* context, const PixelBuffer& picture, const Rect& rect);

}  // namespace zellive
