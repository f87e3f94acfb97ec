#include "zellive/gpu/GPUImageFramebuffer.h"

#include <GLES2/gl2.h>

#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFramebufferCache.h"
#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// Whole pixels; sizes that no texture has become 0 or stay too large.
std::size_t wholePixels(double length) {
  constexpr double kBeyondAll = 1 << 24;
  return length >= 1 ? static_cast<std::size_t>(length < kBeyondAll ? length : kBeyondAll) : 0;
}

}  // namespace

std::shared_ptr<GPUImageFramebuffer> GPUImageFramebuffer::create(Size size, const GPUTextureOptions& textureOptions,
                                                                 bool onlyTexture) {
  std::shared_ptr<GPUImageFramebuffer> made(new GPUImageFramebuffer(size, textureOptions, onlyTexture));
  runSynchronouslyOnVideoProcessingQueue([&] {
    GPUImageContext::useImageProcessingContext();
    onlyTexture ? made->generateTexture() : made->generateFramebuffer();
  });
  return made;
}

std::shared_ptr<GPUImageFramebuffer> GPUImageFramebuffer::createWithTexture(Size size,
                                                                            std::uint32_t overriddenTexture) {
  std::shared_ptr<GPUImageFramebuffer> made(new GPUImageFramebuffer(size, {}, false));
  made->referenceCountingDisabled_ = true;
  made->texture_ = overriddenTexture;
  return made;
}

std::shared_ptr<GPUImageFramebuffer> GPUImageFramebuffer::createWithTexture(
    Size size, std::shared_ptr<const PixelBufferTexture> cachedTexture) {
  auto made = createWithTexture(size, cachedTexture->name);
  made->cachedTexture_ = std::move(cachedTexture);
  return made;
}

GPUImageFramebuffer::~GPUImageFramebuffer() { destroyFramebuffer(); }

void GPUImageFramebuffer::generateTexture() {
  glActiveTexture(GL_TEXTURE1);
  glGenTextures(1, &texture_);
  glBindTexture(GL_TEXTURE_2D, texture_);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, static_cast<GLint>(textureOptions_.minFilter));
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, static_cast<GLint>(textureOptions_.magFilter));
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, static_cast<GLint>(textureOptions_.wrapS));
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, static_cast<GLint>(textureOptions_.wrapT));
}

void GPUImageFramebuffer::generateFramebuffer() {
  auto* const cache = GPUImageContext::sharedImageProcessingContext().coreVideoTextureCache();
  if (cache == nullptr) {
    return;
  }
  glGenFramebuffers(1, &framebuffer_);
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffer_);
  const auto result =
      cache->makeRenderTarget({textureOptions_.internalFormat, wholePixels(size_.width), wholePixels(size_.height),
                               textureOptions_.format, textureOptions_.type});
  if (!result.texture) {
    // A lost context has been told of.
    if (result.status != TextureStatus::NoContext) {
      ZEL_LOG_ERROR("FBO size: %f, %f", size_.width, size_.height);
    }
    return;
  }
  renderTarget_ = result.texture;
  const auto& made = renderTarget_->texture();
  texture_ = made.name;
  glBindTexture(made.target, texture_);
  glTexParameterf(made.target, GL_TEXTURE_WRAP_S, static_cast<GLfloat>(textureOptions_.wrapS));
  glTexParameterf(made.target, GL_TEXTURE_WRAP_T, static_cast<GLfloat>(textureOptions_.wrapT));
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, made.target, texture_, 0);
  glBindTexture(GL_TEXTURE_2D, 0);
}

void GPUImageFramebuffer::destroyFramebuffer() {
  runSynchronouslyOnVideoProcessingQueue([this] {
    GPUImageContext::useImageProcessingContext();
    glDeleteFramebuffers(1, &framebuffer_);
    if (renderTarget_ || cachedTexture_) {
      renderTarget_.reset();
      cachedTexture_.reset();
    } else {
      glDeleteTextures(1, &texture_);
    }
  });
}

void GPUImageFramebuffer::activateFramebuffer() {
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffer_);
  glViewport(0, 0, static_cast<GLsizei>(wholePixels(size_.width)), static_cast<GLsizei>(wholePixels(size_.height)));
  if (renderTarget_) {
    renderTarget_->contentsWillChange();
  }
}

void GPUImageFramebuffer::lock() {
  if (!referenceCountingDisabled_) {
    ++framebufferReferenceCount_;
  }
}

void GPUImageFramebuffer::unlock() {
  if (!referenceCountingDisabled_ && framebufferReferenceCount_-- == 1) {
    GPUImageContext::sharedFramebufferCache()->returnFramebufferToCache(shared_from_this());
  }
}

std::unique_ptr<Image> GPUImageFramebuffer::newCGImageFromFramebufferContents() {
  std::unique_ptr<Image> image;
  runSynchronouslyOnVideoProcessingQueue([&] {
    lockForReading();
    auto self = shared_from_this();
    const auto cache = GPUImageContext::sharedFramebufferCache();
    cache->addFramebufferToActiveImageCaptureList(self);
    auto giveBack = [self, picture = lockedBytes_] {
      self->restoreRenderTarget();
      self->unlock();
      GPUImageContext::sharedFramebufferCache()->removeFramebufferFromActiveImageCaptureList(self);
    };
    if (lockedBytes_) {
      image = std::make_unique<Image>(Image::Layout::BGRAPremultiplied, lockedBytes_->width(), lockedBytes_->height(),
                                      bytesPerRow(), lockedBytes_->plane(0).base, std::move(giveBack));
    } else {
      giveBack();
    }
  });
  return image;
}

std::shared_ptr<PixelBuffer> GPUImageFramebuffer::takeBytes() {
  GPUImageContext::useImageProcessingContext();
  return renderTarget_ ? renderTarget_->pixelBuffer() : nullptr;
}

std::shared_ptr<PixelBuffer> GPUImageFramebuffer::pixelBuffer() {
  std::shared_ptr<PixelBuffer> picture;
  runSynchronouslyOnVideoProcessingQueue([&] { picture = takeBytes(); });
  return picture;
}

std::uint8_t* GPUImageFramebuffer::byteBuffer() {
  std::uint8_t* bytes = nullptr;
  runSynchronouslyOnVideoProcessingQueue([&] {
    lockForReading();
    bytes = lockedBytes_ ? lockedBytes_->plane(0).base : nullptr;
    unlockAfterReading();
  });
  return bytes;
}

std::size_t GPUImageFramebuffer::bytesPerRow() const {
  return renderTarget_ ? renderTarget_->bytesPerRow() : wholePixels(size_.width * 4);
}

void GPUImageFramebuffer::lockForReading() {
  runSynchronouslyOnVideoProcessingQueue([this] {
    if (readLockCount_++ == 0) {
      lockedBytes_ = takeBytes();
    }
  });
}

void GPUImageFramebuffer::unlockAfterReading() {
  runSynchronouslyOnVideoProcessingQueue([this] {
    if (readLockCount_ > 0 && --readLockCount_ == 0) {
      lockedBytes_.reset();
    }
  });
}

void GPUImageFramebuffer::restoreRenderTarget() { unlockAfterReading(); }

}  // namespace zellive
