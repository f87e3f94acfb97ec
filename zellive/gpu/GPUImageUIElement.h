#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "zellive/gpu/GPUImageOutput.h"
#include "zellive/platform/View.h"

namespace zellive {

/// A source that shows a view, with what is within it, as a still picture: BGRA, colours not multiplied by alpha, as
/// blending filters take them; transparent where the view is. It sends when it is told to; what has not changed since
/// is neither drawn nor uploaded again.
///
/// Any thread. The view is drawn on the thread that calls update(); the picture reaches the targets on the
/// video-processing queue, soon after, in the order of the calls. forceProcessingAtSize() has no effect: a picture is
/// as large as the view.
class GPUImageUIElement : public GPUImageOutput {
 public:
  /// `view` is not null.
  [[nodiscard]] static std::shared_ptr<GPUImageUIElement> create(std::shared_ptr<View> view);

  /// Sends the view as it is now, at no time in particular. Nothing is sent while the view has no size.
  void update() { updateWithTimestamp(MediaTime::indefinite()); }
  void updateWithTimestamp(MediaTime frameTime);
  /// The view's size as it is now, in whole pixels.
  [[nodiscard]] Size layerSizeInPixels() const;

 private:
  explicit GPUImageUIElement(std::shared_ptr<View> view) : view_(std::move(view)) {}
  void upload(const PixelBuffer& picture);
  void informTargets(MediaTime frameTime);

  const std::shared_ptr<View> view_;
  std::atomic<std::uint64_t> drawnVersion_ = 0;
  std::uint64_t uploadedVersion_ = 0;  // On the video-processing queue.
};

}  // namespace zellive
