#include "zellive/gpu/GPUImageFilter.h"

#include <GLES2/gl2.h>

#include <chrono>
#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFramebufferCache.h"
#include "zellive/gpu/ProgramLinking.h"
#include "zellive/gpu/ShaderSources.h"
#include "zellive/platform/Bundle.h"

namespace zellive {
namespace {

constexpr std::chrono::seconds kLongestCapture{3};

/// The largest size of the shape of `size` within `bounds`.
Size aspectFit(Size size, Size bounds) {
  if (size.width <= 0 || size.height <= 0) {
    return {};
  }
  return bounds.width * size.height <= bounds.height * size.width
             ? Size{bounds.width, size.height * bounds.width / size.width}
             : Size{size.width * bounds.height / size.height, bounds.height};
}

}  // namespace

void GPUImageFilter::Input::supply(std::shared_ptr<GPUImageFramebuffer> framebuffer) {
  if (framebuffer) {
    framebuffer->lock();
  }
  // A frame that is replaced before it was drawn goes back to the cache.
  unlock();
  framebuffer_ = std::move(framebuffer);
  locked_ = framebuffer_ != nullptr;
}

void GPUImageFilter::Input::unlock() {
  if (std::exchange(locked_, false)) {
    framebuffer_->unlock();
  }
}

bool GPUImageFilter::Input::isOnlyHolder() const {
  return locked_ && !framebuffer_->referenceCountingDisabled() && framebuffer_->framebufferReferenceCount() == 1;
}

std::shared_ptr<GPUImageFramebuffer> GPUImageFilter::Input::handOn() {
  locked_ = false;
  return framebuffer_;
}

GPUImageFilter::GPUImageFilter() = default;

std::shared_ptr<GPUImageFilter> GPUImageFilter::create() {
  std::shared_ptr<GPUImageFilter> filter(new GPUImageFilter);
  filter->initWithShaders(kDefaultVertexShaderString, kPassThroughFragmentShaderString, Effect::Copy);
  return filter;
}

std::shared_ptr<GPUImageFilter> GPUImageFilter::createWithFragmentShader(const std::string& fragmentShader) {
  return createWithShaders(kDefaultVertexShaderString, fragmentShader);
}

std::shared_ptr<GPUImageFilter> GPUImageFilter::createWithShaders(const std::string& vertexShader,
                                                                  const std::string& fragmentShader) {
  std::shared_ptr<GPUImageFilter> filter(new GPUImageFilter);
  filter->initWithShaders(vertexShader, fragmentShader);
  return filter;
}

std::shared_ptr<GPUImageFilter> GPUImageFilter::createWithFragmentShaderFromFile(const std::string& name) {
  return createWithFragmentShader(mainBundleResource(name, "fsh").value_or(""));
}

void GPUImageFilter::initWithShaders(const std::string& vertexShader, const std::string& fragmentShader,
                                     Effect effect) {
  effect_ = effect;
  runSynchronouslyOnVideoProcessingQueue([&] {
    auto& context = GPUImageContext::sharedImageProcessingContext();
    context.useAsCurrentContext();
    filterProgram_ = context.programForVertexShaderString(vertexShader, fragmentShader);
    if (!filterProgram_->initialized()) {
      initializeAttributes();
      if (!linkOrExplain(*filterProgram_)) {
        filterProgram_.reset();
        return;
      }
    }
    filterPositionAttribute_ = filterProgram_->attributeIndex("position");
    filterTextureCoordinateAttribute_ = filterProgram_->attributeIndex("inputTextureCoordinate");
    filterInputTextureUniform_ = filterProgram_->uniformIndex("inputImageTexture");
    context.setContextShaderProgram(filterProgram_);
    glEnableVertexAttribArray(filterPositionAttribute_);
    glEnableVertexAttribArray(filterTextureCoordinateAttribute_);
  });
}

void GPUImageFilter::initializeAttributes() {
  filterProgram_->addAttribute("position");
  filterProgram_->addAttribute("inputTextureCoordinate");
}

void GPUImageFilter::setBackgroundColorRed(float red, float green, float blue, float alpha) {
  const std::lock_guard lock(colorMutex_);
  backgroundColor_ = {red, green, blue, alpha};
}

void GPUImageFilter::newFrameReadyAtTime(MediaTime frameTime, std::size_t) {
  renderToTextureWithVertices(kWholeQuad, textureCoordinatesForRotation(inputRotation_));
  informTargetsAboutNewFrameAtTime(frameTime);
}

void GPUImageFilter::setInputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer, std::size_t) {
  firstInput_.supply(std::move(framebuffer));
}

void GPUImageFilter::setInputRotation(GPUImageInputTurn turn, std::size_t) { inputRotation_ = turn; }

Size GPUImageFilter::rotatedSize(Size size, std::size_t) const {
  return turnSwapsSides(inputRotation_) ? Size{size.height, size.width} : size;
}

void GPUImageFilter::setInputSize(Size size, std::size_t index) {
  if (preventRendering_) {
    return;
  }
  const auto forced = forcedSize();
  const auto rotated = rotatedSize(size, index);
  if (!forced.override) {
    setInputTextureSize(rotated);
  } else if (forced.maximum != Size{}) {
    setInputTextureSize(aspectFit(rotated, forced.maximum));
  }
  setupFilterForSize(sizeOfFBO());
}

Size GPUImageFilter::sizeOfFBO() const {
  const auto input = inputTextureSize();
  const auto largest = maximumOutputSize();
  return largest == Size{} || input.width < largest.width ? input : largest;
}

void GPUImageFilter::forceProcessingAtSize(Size size) {
  if (size == Size{}) {
    setForcedSize({false, forcedSize().maximum});
  } else {
    setInputTextureSize(size);
    setForcedSize({true, {}});
  }
}

void GPUImageFilter::forceProcessingAtSizeRespectingAspectRatio(Size size) {
  if (size == Size{}) {
    setInputTextureSize({});
    setForcedSize({});
  } else {
    setForcedSize({true, size});
  }
}

bool GPUImageFilter::mayHandOnInput(const GPUImageQuad& vertices, const GPUImageQuad& textureCoordinates) const {
  const auto* input = firstInput_.get();
  // What a copy would show must be just what the input is, and nobody else may still want the input as it is.
  return effect_ == Effect::Copy && filterProgram_ && uniformStateRestorationBlocks_.empty() &&
         vertices == kWholeQuad && textureCoordinates == textureCoordinatesForRotation(kGPUImageTurnNone) &&
         firstInput_.isOnlyHolder() && input->isRenderTarget() && input->size() == sizeOfFBO() &&
         input->textureOptions() == outputTextureOptions();
}

void GPUImageFilter::renderToTextureWithVertices(const GPUImageQuad& vertices, const GPUImageQuad& textureCoordinates) {
  if (preventRendering_) {
    unlockInputs();
    // A frame that was kept for capture is not this one.
    removeOutputFramebuffer();
    capturesThisFrame_ = false;
    return;
  }
  GPUImageContext::setActiveShaderProgram(filterProgram_);
  capturesThisFrame_ = usingNextFrameForImageCapture_;
  const bool handsOn = mayHandOnInput(vertices, textureCoordinates);
  // A copy that would be exact is not drawn: our hold of the input becomes the hold of the output.
  const auto output = handsOn ? firstInput_.handOn()
                              : GPUImageContext::sharedFramebufferCache()->fetchFramebufferForSize(
                                    sizeOfFBO(), outputTextureOptions(), false);
  setOutputFramebuffer(output);
  output->activateFramebuffer();
  if (capturesThisFrame_) {
    output->lock();
    // Of the frames that come before the capture is taken, the latest is kept.
    if (const auto former = std::exchange(captured_, output)) {
      former->unlock();
    }
  }
  if (!handsOn) {
    draw(vertices, textureCoordinates);
    unlockInputs();
  }
  if (capturesThisFrame_) {
    imageCaptureSemaphore_.signal();
  }
}

void GPUImageFilter::draw(const GPUImageQuad& vertices, const GPUImageQuad& textureCoordinates) {
  setUniformsForProgramAtIndex(0);
  {
    const std::lock_guard lock(colorMutex_);
    glClearColor(backgroundColor_[0], backgroundColor_[1], backgroundColor_[2], backgroundColor_[3]);
  }
  glClear(GL_COLOR_BUFFER_BIT);
  if (!filterProgram_) {
    return;
  }
  glActiveTexture(GL_TEXTURE2);
  glBindTexture(GL_TEXTURE_2D, firstInput_.texture());
  glUniform1i(filterInputTextureUniform_, 2);
  bindFurtherInputs();
  glVertexAttribPointer(filterPositionAttribute_, 2, GL_FLOAT, GL_FALSE, 0, vertices.data());
  glVertexAttribPointer(filterTextureCoordinateAttribute_, 2, GL_FLOAT, GL_FALSE, 0, textureCoordinates.data());
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

void GPUImageFilter::unlockInputs() { firstInput_.unlock(); }

void GPUImageFilter::informTargetsAboutNewFrameAtTime(MediaTime frameTime) {
  if (const auto block = frameProcessingCompletionBlock()) {
    (*block)(*this, frameTime);
  }
  const auto size = outputFrameSize();
  forEachUpdatedTarget([&](GPUImageInput& target, std::size_t index) {
    setInputFramebufferForTarget(target, index);
    target.setInputSize(size, index);
  });
  if (const auto output = framebufferForOutput()) {
    output->unlock();
  }
  if (!capturesThisFrame_) {
    removeOutputFramebuffer();
  }
  forEachUpdatedTarget([&](GPUImageInput& target, std::size_t index) { target.newFrameReadyAtTime(frameTime, index); });
}

void GPUImageFilter::endProcessing() {
  if (!isEndProcessing_.exchange(true)) {
    const auto list = connections();
    for (const auto& target : *list) {
      target.input->endProcessing();
    }
  }
}

void GPUImageFilter::useNextFrameForImageCapture() {
  usingNextFrameForImageCapture_ = true;
  // Every frame of the last capture has signalled.
  while (imageCaptureSemaphore_.tryWait()) {
  }
}

std::unique_ptr<Image> GPUImageFilter::newCGImageFromCurrentlyProcessedOutput() {
  const auto& platform = GPUImageContext::sharedImageProcessingContext().platform();
  if (!imageCaptureSemaphore_.wait(*platform.queues->globalQueue(), kLongestCapture)) {
    return nullptr;
  }
  std::unique_ptr<Image> image;
  // Between frames, so that none replaces the one that is taken.
  runSynchronouslyOnVideoProcessingQueue([&] {
    auto framebuffer = std::exchange(captured_, nullptr);
    if (!framebuffer && (framebuffer = framebufferForOutput())) {
      framebuffer->lock();
    }
    usingNextFrameForImageCapture_ = false;
    imageCaptureSemaphore_.signal();
    if (framebuffer) {
      image = framebuffer->newCGImageFromFramebufferContents();
    }
  });
  return image;
}

}  // namespace zellive
