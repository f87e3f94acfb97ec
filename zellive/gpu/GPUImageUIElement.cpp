#include "zellive/gpu/GPUImageUIElement.h"

#include <GLES2/gl2.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/platform/Drawing.h"

namespace zellive {
namespace {

/// Filters mix colours in by their alpha: a colour that bears it already would come out too dark.
void divideByAlpha(const PixelBuffer& picture) {
  const auto& plane = picture.plane(0);
  for (std::size_t row = 0; row < plane.height; ++row) {
    std::uint8_t* pixel = plane.base + row * plane.bytesPerRow;
    for (const std::uint8_t* const end = pixel + plane.width * 4; pixel != end; pixel += 4) {
      const unsigned alpha = pixel[3];
      if (alpha != 0 && alpha != 255) {
        for (std::size_t component = 0; component < 3; ++component) {
          pixel[component] = static_cast<std::uint8_t>(std::min((pixel[component] * 255U + alpha / 2) / alpha, 255U));
        }
      }
    }
  }
}

}  // namespace

std::shared_ptr<GPUImageUIElement> GPUImageUIElement::create(std::shared_ptr<View> view) {
  return std::shared_ptr<GPUImageUIElement>(new GPUImageUIElement(std::move(view)));
}

Size GPUImageUIElement::layerSizeInPixels() const {
  const auto frame = view_->frame();
  return {std::floor(frame.width), std::floor(frame.height)};
}

void GPUImageUIElement::updateWithTimestamp(MediaTime frameTime) {
  // Read before the drawing: a change in the middle of it counts as one to come.
  const auto version = view_->contentVersion();
  std::shared_ptr<PixelBuffer> picture;
  if (version != drawnVersion_) {
    const auto size = layerSizeInPixels();
    picture = PixelBuffer::create(PixelFormat::BGRA, static_cast<std::size_t>(size.width),
                                  static_cast<std::size_t>(size.height));
    if (!picture) {
      return;
    }
    renderView(*view_, *picture);
    divideByAlpha(*picture);
    drawnVersion_ = version;
  }
  const auto self = std::static_pointer_cast<GPUImageUIElement>(shared_from_this());
  runAsynchronouslyOnVideoProcessingQueue([self, picture, version, frameTime] {
    if (picture && version > self->uploadedVersion_) {
      self->uploadedVersion_ = version;
      self->upload(*picture);
    }
    self->informTargets(frameTime);
  });
}

void GPUImageUIElement::upload(const PixelBuffer& picture) {
  GPUImageContext::useImageProcessingContext();
  auto* const cache = GPUImageContext::sharedImageProcessingContext().coreVideoTextureCache();
  if (cache == nullptr) {
    return;
  }
  glActiveTexture(GL_TEXTURE1);
  auto made = cache->makeTexture(picture, 0, {.width = picture.width(), .height = picture.height()});
  if (made.texture) {
    // A new one each time: targets may still draw with the one before.
    setOutputFramebuffer(GPUImageFramebuffer::createWithTexture(
        {static_cast<double>(picture.width()), static_cast<double>(picture.height())}, std::move(made.texture)));
  }
}

void GPUImageUIElement::informTargets(MediaTime frameTime) {
  const auto framebuffer = framebufferForOutput();
  const auto size = framebuffer ? framebuffer->size() : Size{};
  forEachUpdatedTarget([&](GPUImageInput& target, std::size_t index) {
    setInputFramebufferForTarget(target, index);
    target.setInputSize(size, index);
  });
  forEachUpdatedTarget([&](GPUImageInput& target, std::size_t index) { target.newFrameReadyAtTime(frameTime, index); });
}

}  // namespace zellive
