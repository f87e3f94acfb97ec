#include "tests/support/PictureSource.h"

#include <GLES2/gl2.h>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFramebufferCache.h"
#include "zellive/gpu/ShaderSources.h"

namespace zellive::test {

void PictureSource::send(const PixelBuffer& picture, MediaTime time) {
  runSynchronouslyOnVideoProcessingQueue([&] { push(picture, time); });
}

void PictureSource::push(const PixelBuffer& picture, MediaTime time) {
  GPUImageContext::useImageProcessingContext();
  auto& context = GPUImageContext::sharedImageProcessingContext();
  if (!program_) {
    program_ = context.programForVertexShaderString(kDefaultVertexShaderString, kPassThroughFragmentShaderString);
    if (!program_->initialized()) {
      program_->addAttribute("position");
      program_->addAttribute("inputTextureCoordinate");
      (void)program_->link();
    }
    texture_ = program_->uniformIndex("inputImageTexture");
  }
  const Size size{static_cast<double>(picture.width()), static_cast<double>(picture.height())};
  const auto framebuffer = GPUImageContext::sharedFramebufferCache()->fetchFramebufferForSize(size, false);
  framebuffer->activateFramebuffer();
  GPUImageContext::setActiveShaderProgram(program_);
  glActiveTexture(GL_TEXTURE4);
  glUniform1i(texture_, 4);
  auto* const cache = context.coreVideoTextureCache();
  const TextureShape shape{.width = picture.width(), .height = picture.height()};
  const auto texture = cache != nullptr ? cache->makeTexture(picture, 0, shape).texture : nullptr;
  glClear(GL_COLOR_BUFFER_BIT);
  glEnableVertexAttribArray(0);
  glEnableVertexAttribArray(1);
  glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, kWholeQuad.data());
  glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, textureCoordinatesForRotation(kGPUImageTurnNone).data());
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  setOutputFramebuffer(framebuffer);
  forEachUpdatedTarget([&](GPUImageInput& target, std::size_t index) {
    target.setInputRotation(turn, index);
    target.setInputSize(size, index);
    setInputFramebufferForTarget(target, index);
  });
  removeOutputFramebuffer();
  framebuffer->unlock();
  forEachUpdatedTarget([&](GPUImageInput& target, std::size_t index) { target.newFrameReadyAtTime(time, index); });
}

}  // namespace zellive::test
