#include "zellive/gpu/GPUImageView.h"

#include <GLES2/gl2.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/ProgramLinking.h"
#include "zellive/gpu/ShaderSources.h"
#include "zellive/platform/Drawing.h"

namespace zellive {
namespace {

Size wholePixels(const Rect& frame) { return {std::floor(frame.width), std::floor(frame.height)}; }

/// The quad, in the middle of a view, that shows an input of that size.
GPUImageQuad quadFor(GPUImageFillMode mode, Size input, Size view) {
  if (mode == GPUImageFillMode::Stretch || input.width <= 0 || input.height <= 0) {
    return kWholeQuad;
  }
  const double across = view.width / input.width;
  const double down = view.height / input.height;
  const double scale = mode == GPUImageFillMode::PreserveAspectRatio ? std::min(across, down) : std::max(across, down);
  const auto x = static_cast<float>(scale / across);
  const auto y = static_cast<float>(scale / down);
  return {-x, -y, x, -y, -x, y, x, y};
}

/// The program of the filter that changes nothing, ready to draw with; null when it cannot be linked.
std::shared_ptr<GLProgram> passThroughProgram() {
  auto& context = GPUImageContext::sharedImageProcessingContext();
  context.useAsCurrentContext();
  auto program = context.programForVertexShaderString(kDefaultVertexShaderString, kPassThroughFragmentShaderString);
  if (!program->initialized()) {
    program->addAttribute("position");
    program->addAttribute("inputTextureCoordinate");
    if (!linkOrExplain(*program)) {
      return nullptr;
    }
  }
  return program;
}

void unlock(const std::shared_ptr<GPUImageFramebuffer>& framebuffer) {
  if (framebuffer) {
    framebuffer->unlock();
  }
}

}  // namespace

std::shared_ptr<GPUImageView> GPUImageView::create(Rect frame) {
  return std::shared_ptr<GPUImageView>(new GPUImageView(frame));
}

GPUImageView::GPUImageView(Rect frame) : View(frame) { setBackgroundColor({0, 0, 0, 1}); }

GPUImageView::~GPUImageView() {
  unlock(coming_.framebuffer);
  unlock(shown_.framebuffer);
}

GPUImageFillMode GPUImageView::fillMode() const {
  const std::lock_guard lock(mutex_);
  return fillMode_;
}

void GPUImageView::setFillMode(GPUImageFillMode mode) {
  {
    const std::lock_guard lock(mutex_);
    fillMode_ = mode;
  }
  setNeedsDisplay();
}

GPUImageView::Look GPUImageView::look() const { return {frames_, wholePixels(frame()), backgroundColor(), fillMode()}; }

Size GPUImageView::maximumOutputSize() const { return wholePixels(frame()); }

void GPUImageView::setInputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer, std::size_t) {
  if (framebuffer) {
    framebuffer->lock();
  }
  unlock(coming_.framebuffer);
  coming_.framebuffer = std::move(framebuffer);
}

void GPUImageView::setInputSize(Size size, std::size_t) { coming_.size = size; }

void GPUImageView::setInputRotation(GPUImageInputTurn turn, std::size_t) { coming_.turn = turn; }

void GPUImageView::newFrameReadyAtTime(MediaTime, std::size_t) {
  if (!coming_.framebuffer) {
    return;
  }
  unlock(shown_.framebuffer);
  shown_ = coming_;
  coming_.framebuffer.reset();
  ++frames_;
  bool wanted = false;
  {
    const std::lock_guard lock(mutex_);
    wanted = wanted_;
  }
  if (wanted) {
    renderIfBehind();
  }
}

std::shared_ptr<PixelBuffer> GPUImageView::picture() {
  runSynchronouslyOnVideoProcessingQueue([this] { renderIfBehind(); });
  const std::lock_guard lock(mutex_);
  return picture_;
}

void GPUImageView::draw(cairo_t* context, Size size) {
  std::shared_ptr<PixelBuffer> picture;
  bool behind = false;
  const auto present = look();
  {
    const std::lock_guard lock(mutex_);
    picture = picture_;
    behind = pictureLook_ != present;
    wanted_ = true;
  }
  if (picture) {
    drawPicture(context, *picture, {0, 0, size.width, size.height});
  }
  if (behind) {
    renderLater();
  }
}

void GPUImageView::renderLater() {
  if (renderPosted_.exchange(true)) {
    return;
  }
  runAsynchronouslyOnVideoProcessingQueue([weak = weak_from_this()] {
    if (const auto self = std::static_pointer_cast<GPUImageView>(weak.lock())) {
      self->renderPosted_ = false;
      self->renderIfBehind();
    }
  });
}

void GPUImageView::renderIfBehind() {
  const auto present = look();
  {
    const std::lock_guard lock(mutex_);
    if (pictureLook_ == present) {
      return;
    }
  }
  render(present);
  setNeedsDisplay();
}

bool GPUImageView::isAsDrawn(const Look& look) const {
  return shown_.framebuffer && shown_.framebuffer->isRenderTarget() && shown_.turn == kGPUImageTurnNone &&
         shown_.size == look.size && shown_.framebuffer->size() == look.size;
}

void GPUImageView::render(const Look& look) {
  std::shared_ptr<PixelBuffer> picture;
  if (isAsDrawn(look)) {
    picture = shown_.framebuffer->pixelBuffer();
  } else if (look.size.width >= 1 && look.size.height >= 1) {
    // Not from the cache, which would keep one of each size that a window is drawn through.
    if (!output_ || output_->size() != look.size) {
      output_.reset();
      output_ = GPUImageFramebuffer::create(look.size);
    }
    drawFrame(look);
    picture = output_->pixelBuffer();
  }
  const std::lock_guard lock(mutex_);
  picture_.swap(picture);
  pictureLook_ = look;
  wanted_ = false;
}

void GPUImageView::drawFrame(const Look& look) {
  if (!program_) {
    program_ = passThroughProgram();
  }
  GPUImageContext::setActiveShaderProgram(program_);
  output_->activateFramebuffer();
  const auto& color = look.background;
  glClearColor(static_cast<float>(color.red * color.alpha), static_cast<float>(color.green * color.alpha),
               static_cast<float>(color.blue * color.alpha), static_cast<float>(color.alpha));
  glClear(GL_COLOR_BUFFER_BIT);
  if (!program_ || !shown_.framebuffer) {
    return;
  }
  const auto turned = turnSwapsSides(shown_.turn) ? Size{shown_.size.height, shown_.size.width} : shown_.size;
  const auto vertices = quadFor(look.fillMode, turned, look.size);
  const auto& coordinates = textureCoordinatesForRotation(shown_.turn);
  glActiveTexture(GL_TEXTURE2);
  glBindTexture(GL_TEXTURE_2D, shown_.framebuffer->texture());
  glUniform1i(program_->uniformIndex("inputImageTexture"), 2);
  const auto position = program_->attributeIndex("position");
  const auto coordinate = program_->attributeIndex("inputTextureCoordinate");
  glEnableVertexAttribArray(position);
  glEnableVertexAttribArray(coordinate);
  glVertexAttribPointer(position, 2, GL_FLOAT, GL_FALSE, 0, vertices.data());
  glVertexAttribPointer(coordinate, 2, GL_FLOAT, GL_FALSE, 0, coordinates.data());
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

}  // namespace zellive
