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
  renderToTextureWithVertices(kWholeQuad, coordinates);
  informTargetsAboutNewFrameAtTime(frameTime);
}

void GPUImageCropFilter::calculateCropTextureCoordinates() {
  if (turn_ < kGPUImageTurnNone || turn_ > kGPUImageTurn180) {
    return;
  }
  // The corners of the whole input, drawn together to those of the region. Where the sides are swapped, the region's
  // height runs along s and its width, from the far side, along t.
  struct Span {
    double from, to;
  };
  const Span across{cropRegion_.x, cropRegion_.x + cropRegion_.width};
  const Span down{cropRegion_.y, cropRegion_.y + cropRegion_.height};
  const bool swaps = turnSwapsSides(turn_);
  const Span s = swaps ? down : across;
  const Span t = swaps ? Span{1 - across.to, 1 - across.from} : down;
  const auto& whole = textureCoordinatesForRotation(turn_);
  for (std::size_t i = 0; i < whole.size(); ++i) {
    const Span& span = i % 2 == 0 ? s : t;
    cropTextureCoordinates_[i] = static_cast<float>(whole[i] == 0 ? span.from : span.to);
  }
}

}  // namespace zellive
