#include "tests/support/PictureSource.h"

#include <GLES2/gl2.h>

#include "zellive/gpu/ColorConversion.h"
#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFramebufferCache.h"
#include "zellive/gpu/ShaderSources.h"

namespace zellive::test {
namespace {

std::shared_ptr<const PixelBufferTexture> bindPlane(const PixelBuffer& picture, std::size_t plane, TextureShape shape,
                                                    std::int32_t uniform) {
  auto* const cache = GPUImageContext::sharedImageProcessingContext().coreVideoTextureCache();
  glActiveTexture(GL_TEXTURE4 + static_cast<GLenum>(plane));
  glUniform1i(uniform, 4 + static_cast<GLint>(plane));
  return cache != nullptr ? cache->makeTexture(picture, plane, shape).texture : nullptr;
}

}  // namespace

void PictureSource::send(const PixelBuffer& picture, MediaTime time) {
  runSynchronouslyOnVideoProcessingQueue([&] { push(picture, time); });
}

void PictureSource::push(const PixelBuffer& picture, MediaTime time) {
  GPUImageContext::useImageProcessingContext();
  const Size size{static_cast<double>(picture.width()), static_cast<double>(picture.height())};
  const auto framebuffer = GPUImageContext::sharedFramebufferCache()->fetchFramebufferForSize(size, false);
  framebuffer->activateFramebuffer();
  draw(picture);
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

PictureSource::Pass& PictureSource::passFor(PixelFormat format) {
  const bool bgra = format == PixelFormat::BGRA;
  const bool full = format == PixelFormat::BiPlanarFullRange;
  auto& pass = bgra ? plain_ : full ? fullRange_ : videoRange_;
  if (!pass.program) {
    pass.program = GPUImageContext::sharedImageProcessingContext().programForVertexShaderString(
        kDefaultVertexShaderString, bgra   ? kPassThroughFragmentShaderString
                                    : full ? kGPUImageYUVFullRangeConversionForLAFragmentShaderString
                                           : kGPUImageYUVVideoRangeConversionForLAFragmentShaderString);
    if (!pass.program->initialized()) {
      pass.program->addAttribute("position");
      pass.program->addAttribute("inputTextureCoordinate");
      (void)pass.program->link();
    }
    pass.first = pass.program->uniformIndex(bgra ? "inputImageTexture" : "luminanceTexture");
    pass.second = pass.program->uniformIndex("chrominanceTexture");
    pass.matrix = pass.program->uniformIndex("colorConversionMatrix");
  }
  return pass;
}

void PictureSource::draw(const PixelBuffer& picture) {
  const Pass& pass = passFor(picture.format());
  GPUImageContext::setActiveShaderProgram(pass.program);
  std::shared_ptr<const PixelBufferTexture> first;
  std::shared_ptr<const PixelBufferTexture> second;
  if (picture.format() == PixelFormat::BGRA) {
    first = bindPlane(picture, 0, {.width = picture.width(), .height = picture.height()}, pass.first);
  } else {
    const bool full = picture.format() == PixelFormat::BiPlanarFullRange;
    first = bindPlane(picture, 0, {GL_LUMINANCE, picture.width(), picture.height(), GL_LUMINANCE}, pass.first);
    second = bindPlane(picture, 1, {GL_LUMINANCE_ALPHA, picture.width() / 2, picture.height() / 2, GL_LUMINANCE_ALPHA},
                       pass.second);
    glUniformMatrix3fv(pass.matrix, 1, GL_FALSE, (full ? kColorConversion601FullRange : kColorConversion601).data());
  }
  glClear(GL_COLOR_BUFFER_BIT);
  glEnableVertexAttribArray(0);
  glEnableVertexAttribArray(1);
  glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, kWholeQuad.data());
  glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, textureCoordinatesForRotation(kGPUImageTurnNone).data());
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

}  // namespace zellive::test
