#include <png.h>

#include "zellive/platform/Image.h"
#include "zellive/platform/Log.h"

namespace zellive {

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

}  // namespace zellive
