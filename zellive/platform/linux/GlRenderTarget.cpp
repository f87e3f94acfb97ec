#include "zellive/platform/linux/GlRenderTarget.h"

#include <GLES2/gl2.h>

#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {

GlRenderTarget::GlRenderTarget(std::shared_ptr<GraphicsContext> context, const GlCapabilities& capabilities,
                               std::uint32_t name, std::shared_ptr<PixelBufferPool> pool)
    : context_(std::move(context)),
      capabilities_(capabilities),
      texture_{GL_TEXTURE_2D, name},
      pool_(std::move(pool)) {}

GlRenderTarget::~GlRenderTarget() {
  // Elsewhere the names would be another context's; the driver frees these with their own.
  if (context_->isCurrent()) {
    glDeleteFramebuffers(1, &framebuffer_);
    glDeleteTextures(1, &texture_.name);
  }
}

std::size_t GlRenderTarget::bytesPerRow() const { return pool_->bytesPerRow(); }

std::shared_ptr<PixelBuffer> GlRenderTarget::pixelBuffer() {
  if (!stale_ && picture_) {
    return picture_;
  }
  // Nobody else's reference: the same memory comes back. Somebody's: it stays theirs.
  picture_.reset();
  if (!context_->isCurrent()) {
    return nullptr;
  }
  picture_ = pool_->acquire();
  if (!picture_ || !readInto(*picture_)) {
    picture_.reset();
    return nullptr;
  }
  stale_ = false;
  return picture_;
}

bool GlRenderTarget::readInto(PixelBuffer& picture) {
  GLint former = 0;
  glGetIntegerv(GL_FRAMEBUFFER_BINDING, &former);
  if (framebuffer_ == 0) {
    glGenFramebuffers(1, &framebuffer_);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer_);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture_.name, 0);
  } else {
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer_);
  }
  const auto& plane = picture.plane(0);
  const bool complete = glCheckFramebufferStatus(GL_FRAMEBUFFER) == GL_FRAMEBUFFER_COMPLETE;
  const GLenum error = complete
                           ? readRows(capabilities_, plane.base, plane.bytesPerRow, picture.width(), picture.height())
                           : GLenum{GL_INVALID_FRAMEBUFFER_OPERATION};
  glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(former));
  if (error != GL_NO_ERROR && sampled(100)) {
    ZEL_LOG_ERROR("Live: a picture cannot be read from the GPU: OpenGL error 0x%x (1/100)", error);
  }
  return error == GL_NO_ERROR;
}

}  // namespace zellive
