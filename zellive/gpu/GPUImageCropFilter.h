#pragma once

#include <memory>
#include <mutex>

#include "zellive/gpu/GPUImageFilter.h"

namespace zellive {

/// Cuts a rectangle out of its input.
class GPUImageCropFilter : public GPUImageFilter {
 public:
  /// `cropRegion`: 0…1 of the input's sides; used as it is beyond that, where the border repeats.
  [[nodiscard]] static std::shared_ptr<GPUImageCropFilter> create(Rect cropRegion = {0, 0, 1, 1});

  [[nodiscard]] Rect cropRegion() const;
  /// The output's size follows with the next size of the input.
  void setCropRegion(Rect cropRegion);

  void newFrameReadyAtTime(MediaTime frameTime, std::size_t index) override;
  void setInputSize(Size size, std::size_t index) override;
  void setInputRotation(GPUImageInputTurn turn, std::size_t index) override;

 protected:
  GPUImageCropFilter() = default;

 private:
  /// With regionMutex_ held.
  void calculateCropTextureCoordinates();

  mutable std::mutex regionMutex_;
  // Guarded by regionMutex_.
  Rect cropRegion_{0, 0, 1, 1};
  GPUImageInputTurn turn_ = kGPUImageTurnNone;
  GPUImageQuad cropTextureCoordinates_{};
};

}  // namespace zellive
