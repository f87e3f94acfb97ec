#include "zellive/capture/FitSizePainter.h"

#include <GLES2/gl2.h>

#include <string>
#include <utility>

#include "zellive/capture/ShaderSources.h"
#include "zellive/gpu/ColorConversion.h"
#include "zellive/gpu/ShaderSources.h"
#include "zellive/platform/Log.h"

namespace zellive {
namespace {

constexpr std::array<float, 8> kWholeOutput = {-1, 1, 1, 1, -1, -1, 1, -1};
/// A picture's first row is at t = 0, and so is the output's.
constexpr std::array<float, 8> kTextureCoordinates = {0, 1, 1, 1, 0, 0, 1, 0};
constexpr std::uint64_t kUndrawablePerMessage = 100;

/// Truncates; 0 for what is no size.
std::size_t wholePixels(double side) { return side >= 1 && side < 1e6 ? static_cast<std::size_t>(side) : 0; }

TextureShape planeShape(const PixelBuffer& picture, std::size_t plane, std::uint32_t format) {
  return {format, picture.plane(plane).width, picture.plane(plane).height, format, GL_UNSIGNED_BYTE};
}

/// A quad that shrinks from all of the output to `across` of its width and `down` of its height.
std::array<float, 8> centred(double across, double down) {
  const auto x = static_cast<float>(across);
  const auto y = static_cast<float>(down);
  return {-x, y, x, y, -x, -y, x, -y};
}

}  // namespace

FitSizePainter::FitSizePainter(Size videoSize, std::shared_ptr<GraphicsService> graphics)
    : videoSize_(videoSize),
      width_(wholePixels(videoSize.width)),
      height_(wholePixels(videoSize.height)),
      graphics_(std::move(graphics)),
      vertices_(kWholeOutput) {}

FitSizePainter::~FitSizePainter() { tearDown(); }

std::shared_ptr<GraphicsContext> FitSizePainter::context() const {
  const std::lock_guard lock(mutex_);
  return context_;
}

void FitSizePainter::setContext(std::shared_ptr<GraphicsContext> context) {
  tearDown();
  const std::lock_guard lock(mutex_);
  context_ = std::move(context);
}

std::shared_ptr<PixelBuffer> FitSizePainter::render(const PixelBuffer& picture) {
  if (!context_) {
    if (!setupContext(picture)) {
      return nullptr;
    }
    setupProgram();
    setupRenderBuffer();
  }
  if (!context_->makeCurrent()) {
    return nullptr;
  }
  if (!textureCache_) {
    textureCache_ = context_->makeTextureCache();
  }
  if (!textureCache_) {
    ZEL_LOG_ERROR("CVOpenGLESTextureCacheCreate fail %d", static_cast<int>(TextureStatus::NoContext));
    return nullptr;
  }
  if ((picture.format() == PixelFormat::BGRA && !drawRGB(picture)) ||
      (picture.format() == PixelFormat::BiPlanarFullRange && !drawYUV(picture))) {
    return nullptr;
  }
  glFlush();
  auto output = renderTarget_ ? renderTarget_->pixelBuffer() : nullptr;
  if (renderTarget_ && !output && sampled(100)) {
    ZEL_LOG_ERROR("Live: a fitted picture cannot be read (1/100)");
  }
  return output;
}

bool FitSizePainter::setupContext(const PixelBuffer& picture) {
  // A machine without OpenGL ES does not get it from one picture to the next.
  const bool tries = undrawable_ % kUndrawablePerMessage == 0;
  auto made = tries ? graphics_->makeContext(GraphicsAPI::OpenGLES3) : nullptr;
  if (made && made->makeCurrent()) {
    const std::lock_guard lock(mutex_);
    context_ = std::move(made);
    return true;
  }
  ++undrawable_;
  if (tries) {
    ZEL_LOG_ERROR(
        "Live: pictures of %zu x %zu do not have the shape of the output %.0f x %.0f and cannot be fitted without "
        "OpenGL ES: dropped %llu",
        picture.width(), picture.height(), videoSize_.width, videoSize_.height,
        static_cast<unsigned long long>(undrawable_));
  }
  return false;
}

// ---- Programs

FitSizePainter::Program FitSizePainter::makeProgram(const char* name, const char* vertexShader,
                                                    const char* fragmentShader, const char* position,
                                                    const char* textureCoordinate) {
  ZEL_LOG_INFO("Live: create %s", name);
  auto program = std::make_unique<GLProgram>(vertexShader, fragmentShader);
  program->addAttribute(position);
  program->addAttribute(textureCoordinate);
  if (!program->link()) {
    ZEL_LOG_ERROR("Live: %s link log: %s", name, program->programLog().c_str());
    ZEL_LOG_ERROR("Live: %s vertex shader log: %s", name, program->vertexShaderLog().c_str());
    ZEL_LOG_ERROR("Live: %s fragment shader log: %s", name, program->fragmentShaderLog().c_str());
    ZEL_LOG_ERROR("%s shader link failed", name);
    return {};
  }
  const auto positionIndex = program->attributeIndex(position);
  const auto coordinateIndex = program->attributeIndex(textureCoordinate);
  return {std::move(program), positionIndex, coordinateIndex};
}

void FitSizePainter::setupProgram() {
  if (!fitRGBProgram_.program) {
    fitRGBProgram_ = makeProgram("fitRGBProgram", kFitRGBVertexShaderString, kFitRGBFragmentShaderString, "a_position",
                                 "a_TexCoord");
  }
  if (!fitYUVProgram_.program) {
    fitYUVProgram_ =
        makeProgram("fitYUVProgram", kDefaultVertexShaderString,
                    kGPUImageYUVFullRangeConversionForLAFragmentShaderString, "position", "inputTextureCoordinate");
  }
  const auto uniform = [](const Program& of, const char* name) {
    return of.program ? of.program->uniformIndex(name) : -1;
  };
  textureUniform_ = uniform(fitRGBProgram_, "u_Texture");
  luminanceTextureUniform_ = uniform(fitYUVProgram_, "luminanceTexture");
  chrominanceTextureUniform_ = uniform(fitYUVProgram_, "chrominanceTexture");
  colorConversionMatrixUniform_ = uniform(fitYUVProgram_, "colorConversionMatrix");
}

// ---- Output

void FitSizePainter::setupRenderBuffer() {
  if (!renderTextureCache_) {
    renderTextureCache_ = context_->makeTextureCache();
  }
  if (!renderTextureCache_) {
    ZEL_LOG_ERROR("Live: CVOpenGLESTextureCacheCreate failed renderTextureCache %d",
                  static_cast<int>(TextureStatus::NoContext));
    return;
  }
  ZEL_LOG_INFO("Live: FBO size: %f %f", videoSize_.width, videoSize_.height);
  if (!makeRenderTarget()) {
    return;
  }
  glGenFramebuffers(1, &renderFrameBuffer_);
  glBindFramebuffer(GL_FRAMEBUFFER, renderFrameBuffer_);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, renderTarget_->texture().target,
                         renderTarget_->texture().name, 0);
  if (const GLenum status = glCheckFramebufferStatus(GL_FRAMEBUFFER); status != GL_FRAMEBUFFER_COMPLETE) {
    ZEL_LOG_ERROR("Live: Failed to make complete framebuffer object %x", status);
    glDeleteFramebuffers(1, &renderFrameBuffer_);
    renderFrameBuffer_ = 0;
    renderTarget_.reset();
    return;
  }
  // What is handed over before anything has been drawn is black, and nobody else's memory.
  glClear(GL_COLOR_BUFFER_BIT);
}

bool FitSizePainter::makeRenderTarget() {
  auto made = renderTextureCache_->makeRenderTarget({.width = width_, .height = height_});
  if (made.status == TextureStatus::BadPicture) {
    ZEL_LOG_ERROR("Live: Error at CVPixelBufferCreate renderTarget %d", static_cast<int>(made.status));
    return false;
  }
  if (!made.texture) {
    ZEL_LOG_ERROR("Live: Error at CVOpenGLESTextureCacheCreateTextureFromImage renderTexture %d",
                  static_cast<int>(made.status));
    return false;
  }
  if (made.texture->texture().name == 0) {
    ZEL_LOG_ERROR("Live: renderTexture is unavailable");
    return false;
  }
  renderTarget_ = std::move(made.texture);
  return true;
}

// ---- Fitting

void FitSizePainter::setupVerticesByPixelWidth(std::size_t pixelWidth, std::size_t pixelHeight) {
  if (pixelWidth == lastPixelWidth_ && pixelHeight == lastPixelHeight_) {
    return;
  }
  ZEL_LOG_INFO("Live: fitFilter lw:%zu lh:%zu pw:%zu ph:%zu", lastPixelWidth_, lastPixelHeight_, pixelWidth,
               pixelHeight);
  lastPixelWidth_ = pixelWidth;
  lastPixelHeight_ = pixelHeight;
  const auto [width, height] = videoSize_;
  const auto pictureWidth = static_cast<double>(pixelWidth);
  const auto pictureHeight = static_cast<double>(pixelHeight);
  const auto videoRatio = static_cast<float>(width / height);
  const auto pixelRatio = static_cast<float>(pictureWidth / pictureHeight);
  if (pixelRatio < videoRatio) {
    vertices_ = centred(1 - (width - height * pictureWidth / pictureHeight) / width, 1);
  } else if (pixelRatio > videoRatio) {
    vertices_ = centred(1, 1 - (height - width * pictureHeight / pictureWidth) / height);
  } else {
    vertices_ = kWholeOutput;
  }
}

void FitSizePainter::setupVBO(const Program& program, std::size_t pixelWidth, std::size_t pixelHeight) {
  setupVerticesByPixelWidth(pixelWidth, pixelHeight);
  const auto point = [](std::uint32_t attribute, const std::array<float, 8>& pairs) {
    glEnableVertexAttribArray(attribute);
    glVertexAttribPointer(attribute, 2, GL_FLOAT, GL_FALSE, 0, pairs.data());
  };
  point(program.position, vertices_);
  point(program.textureCoordinate, kTextureCoordinates);
}

// ---- Drawing

/// A program that is missing is made for the next picture; this one is dropped.
bool FitSizePainter::isReadyFor(const Program& program) {
  if (!program.program) {
    setupProgram();
    return false;
  }
  if (renderFrameBuffer_ == 0) {
    setupRenderBuffer();
  }
  if (renderFrameBuffer_ == 0) {
    return false;
  }
  texture_.reset();
  lumaTexture_.reset();
  chromaTexture_.reset();
  textureCache_->flush(TextureCache::Flush::Stale);
  return true;
}

void FitSizePainter::beginPicture(const Program& program) {
  program.program->use();
  renderTarget_->contentsWillChange();
  glBindFramebuffer(GL_FRAMEBUFFER, renderFrameBuffer_);
  glClear(GL_COLOR_BUFFER_BIT);
  glViewport(0, 0, static_cast<GLsizei>(width_), static_cast<GLsizei>(height_));
}

bool FitSizePainter::drawRGB(const PixelBuffer& picture) {
  if (!isReadyFor(fitRGBProgram_)) {
    return false;
  }
  glActiveTexture(GL_TEXTURE0);
  auto made = textureCache_->makeTexture(picture, 0, {.width = picture.width(), .height = picture.height()});
  if (!made.texture) {
    ZEL_LOG_ERROR("CVOpenGLESTextureCacheCreateTextureFromImage ret: %d", static_cast<int>(made.status));
    return false;
  }
  texture_ = std::move(made.texture);
  beginPicture(fitRGBProgram_);
  glBindTexture(texture_->target, texture_->name);
  glUniform1i(textureUniform_, 0);
  setupVBO(fitRGBProgram_, picture.width(), picture.height());
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  return true;
}

bool FitSizePainter::drawYUV(const PixelBuffer& picture) {
  if (!isReadyFor(fitYUVProgram_)) {
    return false;
  }
  const auto make = [&](std::size_t plane, std::uint32_t format, const char* name) {
    glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(plane));
    auto made = textureCache_->makeTexture(picture, plane, planeShape(picture, plane, format));
    if (!made.texture) {
      ZEL_LOG_ERROR("Live: Error at CVOpenGLESTextureCacheCreateTextureFromImage %s %d", name,
                    static_cast<int>(made.status));
      return Texture();
    }
    glBindTexture(made.texture->target, made.texture->name);
    return made.texture;
  };
  lumaTexture_ = make(0, GL_LUMINANCE, "lumaTexture");
  chromaTexture_ = lumaTexture_ ? make(1, GL_LUMINANCE_ALPHA, "chromaTexture") : nullptr;
  if (!chromaTexture_) {
    return false;
  }
  beginPicture(fitYUVProgram_);
  glUniform1i(luminanceTextureUniform_, 0);
  glUniform1i(chrominanceTextureUniform_, 1);
  setupVBO(fitYUVProgram_, picture.width(), picture.height());
  glUniformMatrix3fv(colorConversionMatrixUniform_, 1, GL_FALSE, kColorConversion601FullRange.data());
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
  return true;
}

// ---- End

void FitSizePainter::releaseTextureCache() {
  texture_.reset();
  lumaTexture_.reset();
  chromaTexture_.reset();
  renderTarget_.reset();
  for (auto* cache : {&textureCache_, &renderTextureCache_}) {
    if (*cache) {
      (*cache)->flush(TextureCache::Flush::All);
      cache->reset();
    }
  }
}

void FitSizePainter::tearDown() {
  if (!context_) {
    return;
  }
  (void)context_->makeCurrent();
  releaseTextureCache();
  if (renderFrameBuffer_ != 0) {
    glDeleteFramebuffers(1, &renderFrameBuffer_);
    renderFrameBuffer_ = 0;
  }
  fitRGBProgram_ = {};
  fitYUVProgram_ = {};
  context_->clearCurrent();
  std::shared_ptr<GraphicsContext> dropped;
  const std::lock_guard lock(mutex_);
  dropped.swap(context_);
}

}  // namespace zellive
