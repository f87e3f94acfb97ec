#include "zellive/gpu/GPUImageTwoInputFilter.h"

#include <GLES2/gl2.h>

#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/ShaderSources.h"

namespace zellive {

std::shared_ptr<GPUImageTwoInputFilter> GPUImageTwoInputFilter::createWithFragmentShader(
    const std::string& fragmentShader) {
  return createWithShaders(kTwoInputVertexShaderString, fragmentShader);
}

std::shared_ptr<GPUImageTwoInputFilter> GPUImageTwoInputFilter::createWithShaders(const std::string& vertexShader,
                                                                                  const std::string& fragmentShader) {
  std::shared_ptr<GPUImageTwoInputFilter> filter(new GPUImageTwoInputFilter);
  filter->initWithTwoInputShaders(vertexShader, fragmentShader);
  return filter;
}

void GPUImageTwoInputFilter::initWithTwoInputShaders(const std::string& vertexShader,
                                                     const std::string& fragmentShader) {
  initWithShaders(vertexShader, fragmentShader);
  runSynchronouslyOnVideoProcessingQueue([this] {
    if (!filterProgram()) {
      return;
    }
    GPUImageContext::useImageProcessingContext();
    filterSecondTextureCoordinateAttribute_ = filterProgram()->attributeIndex("inputTextureCoordinate2");
    filterInputTextureUniform2_ = filterProgram()->uniformIndex("inputImageTexture2");
    glEnableVertexAttribArray(filterSecondTextureCoordinateAttribute_);
  });
}

void GPUImageTwoInputFilter::initializeAttributes() {
  GPUImageFilter::initializeAttributes();
  filterProgram()->addAttribute("inputTextureCoordinate2");
}

void GPUImageTwoInputFilter::setInputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer, std::size_t index) {
  if (index == 0) {
    hasSetFirstTexture_ = true;
    GPUImageFilter::setInputFramebuffer(std::move(framebuffer), index);
  } else {
    secondInput_.supply(std::move(framebuffer));
  }
}

void GPUImageTwoInputFilter::setInputSize(Size size, std::size_t index) {
  if (index == 0) {
    GPUImageFilter::setInputSize(size, index);
    if (size == Size{}) {
      hasSetFirstTexture_ = false;
    }
  }
}

void GPUImageTwoInputFilter::setInputRotation(GPUImageInputTurn turn, std::size_t index) {
  if (index == 0) {
    GPUImageFilter::setInputRotation(turn, index);
  } else {
    inputRotation2_ = turn;
  }
}

Size GPUImageTwoInputFilter::rotatedSize(Size size, std::size_t index) const {
  return turnSwapsSides(index == 0 ? inputRotation() : inputRotation2_) ? Size{size.height, size.width} : size;
}

void GPUImageTwoInputFilter::newFrameReadyAtTime(MediaTime frameTime, std::size_t index) {
  // Both are set while a frame is rendered: one that comes back to its own filter ends here.
  if (hasReceivedFirstFrame_ && hasReceivedSecondFrame_) {
    return;
  }
  const bool first = index == 0;
  (first ? hasReceivedFirstFrame_ : hasReceivedSecondFrame_) = true;
  (first ? firstFrameTime_ : secondFrameTime_) = frameTime;
  if (first ? secondFrameCheckDisabled_ : firstFrameCheckDisabled_) {
    (first ? hasReceivedSecondFrame_ : hasReceivedFirstFrame_) = true;
  }
  const bool movesAgainstStill =
      !frameTime.isIndefinite() && (first ? secondFrameTime_ : firstFrameTime_).isIndefinite();
  if ((hasReceivedFirstFrame_ && hasReceivedSecondFrame_) || movesAgainstStill) {
    GPUImageFilter::newFrameReadyAtTime(firstFrameTime_.isIndefinite() ? secondFrameTime_ : firstFrameTime_, 0);
    hasReceivedFirstFrame_ = false;
    hasReceivedSecondFrame_ = false;
  }
}

void GPUImageTwoInputFilter::unlockInputs() {
  GPUImageFilter::unlockInputs();
  secondInput_.unlock();
}

void GPUImageTwoInputFilter::bindFurtherInputs() {
  glActiveTexture(GL_TEXTURE3);
  glBindTexture(GL_TEXTURE_2D, secondInput_.texture());
  glUniform1i(filterInputTextureUniform2_, 3);
  glVertexAttribPointer(filterSecondTextureCoordinateAttribute_, 2, GL_FLOAT, GL_FALSE, 0,
                        textureCoordinatesForRotation(inputRotation2_).data());
}

}  // namespace zellive
