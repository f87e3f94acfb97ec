#include <png.h>

#include "zellive/platform/Image.h"
#include "zellive/platform/Log.h"
#include "zellive/platform/PixelBuffer.h"

namespace zellive {
namespace {

void multiplyByAlpha(const PixelBuffer::Plane& plane) {
  for (std::size_t y = 0; y < plane.height; ++y) {
    auto* pixel = plane.base + y * plane.bytesPerRow;
    for (std::size_t x = 0; x < plane.width; ++x, pixel += 4) {
      const unsigned alpha = pixel[3];
      for (int c = 0; c < 3; ++c) {
        pixel[c] = static_cast<std::uint8_t>((pixel[c] * alpha + 127) / 255);
      }
    }
  }
}

}  // namespace

bool savePNG(const Image& image, const std::string& path) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(image.width());
  png.height = static_cast<png_uint_32>(image.height());
  png.format = image.layout() == Image::Layout::RGBA ? PNG_FORMAT_RGBA : PNG_FORMAT_BGRA;
  const bool written = png_image_write_to_file(&png, path.c_str(), 0, image.bytes(),
                                               static_cast<png_int_32>(image.bytesPerRow()), nullptr) != 0;
  if (!written) {
    ZEL_LOG_ERROR("Live: %s cannot be written: %s", path.c_str(), png.message);
  }
  png_image_free(&png);
  return written;
}

std::shared_ptr<PixelBuffer> loadPNG(const std::string& path) {
  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  std::shared_ptr<PixelBuffer> picture;
  const char* reason = "it is too large";
  if (png_image_begin_read_from_file(&png, path.c_str()) == 0) {
    reason = png.message;
  } else if ((picture = PixelBuffer::create(PixelFormat::BGRA, png.width, png.height))) {
    png.format = PNG_FORMAT_BGRA;
    const auto& plane = picture->plane(0);
    if (png_image_finish_read(&png, nullptr, plane.base, static_cast<png_int_32>(plane.bytesPerRow), nullptr) == 0) {
      reason = png.message;
      picture.reset();
    } else {
      multiplyByAlpha(plane);
    }
  }
  if (!picture) {
    ZEL_LOG_ERROR("Live: %s cannot be read: %s", path.c_str(), reason);
  }
  png_image_free(&png);
  return picture;
}

}  // namespace zellive
