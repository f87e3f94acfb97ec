#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "zellive/platform/PixelBuffer.h"
#include "zellive/platform/View.h"

namespace zellive {

/// A picture, scaled to the view's size. Thread-safe.
class ImageView : public View {
 public:
  explicit ImageView(Rect frame = {}, std::shared_ptr<PixelBuffer> image = nullptr);
  /// As large as the picture in the file. Null, with the reason logged, when that cannot be read.
  [[nodiscard]] static std::shared_ptr<ImageView> createWithPNG(const std::string& path);

  [[nodiscard]] std::shared_ptr<PixelBuffer> image() const;
  /// BGRA, components multiplied by alpha; nobody writes it any more. Null, or another format: nothing is drawn.
  void setImage(std::shared_ptr<PixelBuffer> image);

  void draw(cairo_t* context, Size size) override;

 private:
  mutable std::mutex mutex_;
  std::shared_ptr<PixelBuffer> image_;  // Guarded by mutex_.
};

}  // namespace zellive
