#include "zellive/gpu/GPUImageCropFilter.h"

#include "zellive/gpu/ShaderSources.h"

namespace zellive {

std::shared_ptr<GPUImageCropFilter> GPUImageCropFilter::create(Rect cropRegion) {
  std::shared_ptr<GPUImageCropFilter> filter(new GPUImageCropFilter);
  filter->initWithShaders(kDefaultVertexShaderString, kPassThroughFragmentShaderString, Effect::Copy);
  filter->setCropRegion(cropRegion);
  return filter;
}

Rect GPUImageCropFilter::cropRegion() const {
  const std::lock_guard lock(regionMutex_);
  return cropRegion_;
}

void GPUImageCropFilter::setCropRegion(Rect cropRegion) {
  const std::lock_guard lock(regionMutex_);
  cropRegion_ = cropRegion;
  calculateCropTextureCoordinates();
}

void GPUImageCropFilter::setInputRotation(GPUImageInputTurn turn, std::size_t index) {
  GPUImageFilter::setInputRotation(turn, index);
  const std::lock_guard lock(regionMutex_);
  turn_ = turn;
  calculateCropTextureCoordinates();
}

void GPUImageCropFilter::setInputSize(Size size, std::size_t index) {
  if (!preventRendering()) {
    const auto rotated = rotatedSize(size, index);
    const auto region = cropRegion();
    setInputTextureSize({rotated.width * region.width, rotated.height * region.height});
  }
}

void GPUImageCropFilter::newFrameReadyAtTime(MediaTime frameTime, std::size_t) {
  GPUImageQuad coordinates;
  {
    const std::lock_guard lock(regionMutex_);
    coordinates = cropTextureCoordinates_;
  }
  renderToTexture(kWholeQuad, coordinates);
  informTargetsAboutNewFrameAtTime(frameTime);
}

void GPUImageCropFilter::calculateCropTextureCoordinates() {
  const auto x0 = static_cast<float>(cropRegion_.x);
  const auto y0 = static_cast<float>(cropRegion_.y);
  const auto x1 = static_cast<float>(cropRegion_.x + cropRegion_.width);
  const auto y1 = static_cast<float>(cropRegion_.y + cropRegion_.height);
  auto& corners = cropTextureCoordinates_;
  switch (turn_) {
    case kGPUImageTurnNone:
      corners = {x0, y0, x1, y0, x0, y1, x1, y1};
      break;
    case kGPUImageTurnLeft:
      corners = {y1, 1 - x1, y1, 1 - x0, y0, 1 - x1, y0, 1 - x0};
      break;
    case kGPUImageTurnRight:
      corners = {y0, 1 - x0, y0, 1 - x1, y1, 1 - x0, y1, 1 - x1};
      break;
    case kGPUImageTurnFlipVertical:
      corners = {x0, y1, x1, y1, x0, y0, x1, y0};
      break;
    case kGPUImageTurnFlipHorizontal:
      corners = {x1, y0, x0, y0, x1, y1, x0, y1};
      break;
    case kGPUImageTurnRightFlipVertical:
      corners = {y0, 1 - x1, y0, 1 - x0, y1, 1 - x1, y1, 1 - x0};
      break;
    case kGPUImageTurnRightFlipHorizontal:
      corners = {y1, 1 - x0, y1, 1 - x1, y0, 1 - x0, y0, 1 - x1};
      break;
    case kGPUImageTurn180:
      corners = {x1, y1, x0, y1, x1, y0, x0, y0};
      break;
  }
}

}  // namespace zellive
