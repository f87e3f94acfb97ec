#include "zellive/platform/ImageView.h"

#include <utility>

#include "zellive/platform/Drawing.h"
#include "zellive/platform/Image.h"

namespace zellive {

ImageView::ImageView(Rect frame, std::shared_ptr<PixelBuffer> image) : View(frame), image_(std::move(image)) {}

std::shared_ptr<ImageView> ImageView::createWithPNG(const std::string& path) {
  auto image = loadPNG(path);
  if (!image) {
    return nullptr;
  }
  const Rect frame{0, 0, static_cast<double>(image->width()), static_cast<double>(image->height())};
  return std::make_shared<ImageView>(frame, std::move(image));
}

std::shared_ptr<PixelBuffer> ImageView::image() const {
  const std::lock_guard lock(mutex_);
  return image_;
}

void ImageView::setImage(std::shared_ptr<PixelBuffer> image) {
  {
    const std::lock_guard lock(mutex_);
    image_.swap(image);
  }
  setNeedsDisplay();
}

void ImageView::draw(cairo_t* context, Size size) {
  if (const auto shown = image(); shown && shown->format() == PixelFormat::BGRA) {
    drawPicture(context, *shown, {0, 0, size.width, size.height});
  }
}

}  // namespace zellive
