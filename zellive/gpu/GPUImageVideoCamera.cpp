#include "zellive/gpu/GPUImageVideoCamera.h"

#include <GLES2/gl2.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFramebufferCache.h"
#include "zellive/gpu/ProgramLinking.h"
#include "zellive/gpu/ShaderSources.h"
#include "zellive/platform/Log.h"

namespace zellive {
namespace {

/// The first frames wait for shaders and memory and say nothing about those that follow.
constexpr std::uint64_t kFramesBeforeBenchmark = 5;

/// On the video-processing queue.
struct Conversions {
  ColorConversion bt601 = kColorConversion601;
  ColorConversion bt601FullRange = kColorConversion601FullRange;
  ColorConversion bt709 = kColorConversion709;
};
Conversions& conversions() {
  static auto* const all = new Conversions;
  return *all;
}

void setConversion(ColorConversion Conversions::*which, const ColorConversion& conversion) {
  runAsynchronouslyOnVideoProcessingQueue([which, conversion] { conversions().*which = conversion; });
}

std::shared_ptr<CaptureDevice> lastDeviceAt(const CameraService& cameras, CaptureDevicePosition position) {
  std::shared_ptr<CaptureDevice> found;
  for (auto& device : cameras.devices()) {
    if (device->position() == position) {
      found = std::move(device);
    }
  }
  return found;
}

/// How a camera's picture has to be turned to stand upright.
GPUImageInputTurn turnFor(CaptureDevicePosition position, bool mirrored, std::int64_t orientation) {
  using Turns = std::array<GPUImageInputTurn, 4>;  // By orientation, from 1 on.
  static constexpr Turns kRear = {kGPUImageTurnRight, kGPUImageTurnLeft, kGPUImageTurnNone, kGPUImageTurn180};
  static constexpr Turns kRearMirrored = {kGPUImageTurnRightFlipVertical, kGPUImageTurn180, kGPUImageTurnFlipVertical,
                                          kGPUImageTurnFlipHorizontal};
  static constexpr Turns kFront = {kGPUImageTurnRight, kGPUImageTurnLeft, kGPUImageTurn180, kGPUImageTurnNone};
  static constexpr Turns kFrontMirrored = {kGPUImageTurnRightFlipVertical, kGPUImageTurnRightFlipHorizontal,
                                           kGPUImageTurnFlipVertical, kGPUImageTurnFlipHorizontal};
  if (orientation < 1 || orientation > static_cast<std::int64_t>(kRear.size())) {
    return kGPUImageTurnNone;
  }
  const auto& turns =
      position == CaptureDevicePositionBack ? (mirrored ? kRearMirrored : kRear) : (mirrored ? kFrontMirrored : kFront);
  return turns[static_cast<std::size_t>(orientation - 1)];
}

/// A plane as a texture, bound to the unit; null, with the reason in the log, when it cannot be made.
std::shared_ptr<const PixelBufferTexture> bindPlane(const PixelBuffer& picture, std::size_t plane, GLenum unit,
                                                    const TextureShape& shape) {
  glActiveTexture(unit);
  auto* const cache = GPUImageContext::sharedImageProcessingContext().coreVideoTextureCache();
  if (cache == nullptr) {
    return nullptr;  // No OpenGL ES, which has been said.
  }
  auto made = cache->makeTexture(picture, plane, shape);
  if (made.status != TextureStatus::Made && made.status != TextureStatus::NoContext) {
    ZEL_LOG_ERROR("Error at CVOpenGLESTextureCacheCreateTextureFromImage %d", static_cast<int>(made.status));
  }
  return std::move(made.texture);
}

}  // namespace

void setColorConversion601(const ColorConversion& conversion) { setConversion(&Conversions::bt601, conversion); }
void setColorConversion601FullRange(const ColorConversion& conversion) {
  setConversion(&Conversions::bt601FullRange, conversion);
}
void setColorConversion709(const ColorConversion& conversion) { setConversion(&Conversions::bt709, conversion); }

// ---- Making and ending

std::shared_ptr<GPUImageVideoCamera> GPUImageVideoCamera::create() {
  return create("AVCaptureSessionPreset640x480", CaptureDevicePositionBack);
}

std::shared_ptr<GPUImageVideoCamera> GPUImageVideoCamera::create(std::string_view sessionPreset,
                                                                 CaptureDevicePosition cameraPosition,
                                                                 std::shared_ptr<const Platform> platform) {
  auto device = lastDeviceAt(*platform->cameras, cameraPosition);
  auto session = device ? platform->cameras->makeSession() : nullptr;
  if (!session) {
    return nullptr;
  }
  std::shared_ptr<GPUImageVideoCamera> camera(
      new GPUImageVideoCamera(std::move(platform), std::move(session), std::move(device)));
  return camera->initWithSessionPreset(sessionPreset) ? camera : nullptr;
}

GPUImageVideoCamera::GPUImageVideoCamera(std::shared_ptr<const Platform> platform,
                                         std::shared_ptr<CaptureSession> session, std::shared_ptr<CaptureDevice> device)
    : platform_(std::move(platform)),
      captureSession_(std::move(session)),
      preferredConversion_(&conversions().bt709),
      inputCamera_(std::move(device)) {}

bool GPUImageVideoCamera::initWithSessionPreset(std::string_view sessionPreset) {
  captureSession_->beginConfiguration();
  if (!captureSession_->addInput(inputCamera())) {
    ZEL_LOG_WARNING("Live: camera %s cannot be used", inputCamera()->localizedName().c_str());
  }
  const auto formats = captureSession_->availableVideoPixelFormats();
  isFullYUVRange_ = std::ranges::find(formats, PixelFormat::BiPlanarFullRange) != formats.end();
  runSynchronouslyOnVideoProcessingQueue([this] { makeConversionProgram(); });
  captureSession_->setSampleBufferDelegate(std::static_pointer_cast<GPUImageVideoCamera>(shared_from_this()),
                                           platform_->queues->globalQueue());
  const bool added = captureSession_->addVideoDataOutput(isFullYUVRange_ ? PixelFormat::BiPlanarFullRange
                                                                         : PixelFormat::BiPlanarVideoRange);
  if (added) {
    setCaptureSessionPreset(sessionPreset);
  } else {
    ZEL_LOG_ERROR("Live: camera %s gives no pictures that can be drawn", inputCamera()->localizedName().c_str());
  }
  captureSession_->commitConfiguration();
  return added;
}

void GPUImageVideoCamera::makeConversionProgram() {
  auto& context = GPUImageContext::sharedImageProcessingContext();
  context.useAsCurrentContext();
  auto program = context.programForVertexShaderString(
      kDefaultVertexShaderString, isFullYUVRange_ ? kGPUImageYUVFullRangeConversionForLAFragmentShaderString
                                                  : kGPUImageYUVVideoRangeConversionForLAFragmentShaderString);
  if (!program->initialized()) {
    program->addAttribute("position");
    program->addAttribute("inputTextureCoordinate");
    if (!linkOrExplain(*program)) {
      return;
    }
  }
  yuvConversionPositionAttribute_ = program->attributeIndex("position");
  yuvConversionTextureCoordinateAttribute_ = program->attributeIndex("inputTextureCoordinate");
  yuvConversionLuminanceTextureUniform_ = program->uniformIndex("luminanceTexture");
  yuvConversionChrominanceTextureUniform_ = program->uniformIndex("chrominanceTexture");
  yuvConversionMatrixUniform_ = program->uniformIndex("colorConversionMatrix");
  context.setContextShaderProgram(program);
  glEnableVertexAttribArray(yuvConversionPositionAttribute_);
  glEnableVertexAttribArray(yuvConversionTextureCoordinateAttribute_);
  yuvConversionProgram_ = std::move(program);
}

GPUImageVideoCamera::~GPUImageVideoCamera() {
  stopCameraCapture();
  captureSession_->setSampleBufferDelegate({}, nullptr);
  removeInputsAndOutputs();
  GPUImageContext::sharedImageProcessingContext().releaseContext();
}

void GPUImageVideoCamera::removeInputsAndOutputs() {
  captureSession_->beginConfiguration();
  captureSession_->removeInput();
  captureSession_->removeVideoDataOutput();
  captureSession_->commitConfiguration();
}

// ---- Which camera, and how

bool GPUImageVideoCamera::isFrontFacingCameraPresent() const {
  return lastDeviceAt(*platform_->cameras, CaptureDevicePositionFront) != nullptr;
}

bool GPUImageVideoCamera::isBackFacingCameraPresent() const {
  return lastDeviceAt(*platform_->cameras, CaptureDevicePositionBack) != nullptr;
}

std::shared_ptr<CaptureDevice> GPUImageVideoCamera::inputCamera() const {
  const std::lock_guard lock(mutex_);
  return inputCamera_;
}

void GPUImageVideoCamera::rotateCamera() {
  const auto present = inputCamera();
  const bool toRear = present->position() != CaptureDevicePositionBack;
  const auto other = lastDeviceAt(*platform_->cameras, toRear ? CaptureDevicePositionBack : CaptureDevicePositionFront);
  if (!other) {
    ZEL_LOG_WARNING("Live: there is no %s camera to change to", toRear ? "rear" : "front");
    return;
  }
  captureSession_->beginConfiguration();
  captureSession_->removeInput();
  const bool changed = captureSession_->addInput(other);
  if (!changed && !captureSession_->addInput(present)) {
    ZEL_LOG_ERROR("Live: camera %s cannot be used any more", present->localizedName().c_str());
  }
  captureSession_->commitConfiguration();
  if (!changed) {
    ZEL_LOG_WARNING("Live: camera %s cannot be used", other->localizedName().c_str());
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    inputCamera_ = other;
  }
  updateOrientationSendToTargets();
}

std::string GPUImageVideoCamera::captureSessionPreset() const {
  const std::lock_guard lock(mutex_);
  return captureSessionPreset_;
}

void GPUImageVideoCamera::setCaptureSessionPreset(std::string_view preset) {
  {
    const std::lock_guard lock(mutex_);
    captureSessionPreset_ = preset;
  }
  captureSession_->beginConfiguration();
  captureSession_->setSessionPreset(preset);
  captureSession_->commitConfiguration();
}

void GPUImageVideoCamera::setFrameRate(std::int32_t frameRate) {
  frameRate_ = frameRate;
  const auto duration = frameRate > 0 ? MediaTime::make(1, frameRate) : MediaTime{};
  const auto device = inputCamera();
  if (!device->supportsFrameDurations()) {
    captureSession_->setVideoFrameDurations(duration, duration);
  } else if (std::string reason; device->lockForConfiguration(reason)) {
    device->setActiveVideoFrameDurations(duration, duration);
    device->unlockForConfiguration();
  }
}

void GPUImageVideoCamera::setOutputImageOrientation(std::int64_t orientation) {
  outputImageOrientation_ = orientation;
  updateOrientationSendToTargets();
}

void GPUImageVideoCamera::setHorizontallyMirrorFrontFacingCamera(bool mirror) {
  mirrorsFront_ = mirror;
  updateOrientationSendToTargets();
}

void GPUImageVideoCamera::setHorizontallyMirrorRearFacingCamera(bool mirror) {
  mirrorsRear_ = mirror;
  updateOrientationSendToTargets();
}

void GPUImageVideoCamera::updateOrientationSendToTargets() {
  runSynchronouslyOnVideoProcessingQueue([this] {
    const auto position = cameraPosition();
    internalRotation_ = turnFor(position, position == CaptureDevicePositionBack ? mirrorsRear_ : mirrorsFront_,
                                outputImageOrientation_);
    const auto list = connections();
    for (const auto& target : *list) {
      target.input->setInputRotation(outputRotation_, target.index);
    }
  });
}

void GPUImageVideoCamera::setDelegate(std::weak_ptr<GPUImageVideoCameraDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

// ---- Frames

void GPUImageVideoCamera::captureOutputDidOutputSampleBuffer(CaptureSession*, const CaptureSampleBuffer& sampleBuffer) {
  if (!captureSession_->isRunning() || !frameRenderingSemaphore_.tryWait()) {
    return;
  }
  runAsynchronouslyOnVideoProcessingQueue([weak = weak_from_this(), sampleBuffer] {
    const auto camera = std::static_pointer_cast<GPUImageVideoCamera>(weak.lock());
    if (!camera) {
      return;
    }
    std::shared_ptr<GPUImageVideoCameraDelegate> delegate;
    {
      const std::lock_guard lock(camera->mutex_);
      delegate = camera->delegate_.lock();
    }
    if (delegate) {
      delegate->willOutputSampleBuffer(sampleBuffer);
    }
    camera->processVideoSampleBuffer(sampleBuffer);
    camera->frameRenderingSemaphore_.signal();
  });
}

void GPUImageVideoCamera::processVideoSampleBuffer(const CaptureSampleBuffer& sampleBuffer) {
  if (capturePaused_ || !sampleBuffer.imageBuffer || sampleBuffer.imageBuffer->planeCount() < 2) {
    return;
  }
  const auto begun = platform_->clock->now();
  const auto& picture = *sampleBuffer.imageBuffer;
  preferredConversion_ = picture.colorMatrix() == ColorMatrix::BT709 ? &conversions().bt709
                         : isFullYUVRange_                           ? &conversions().bt601FullRange
                                                                     : &conversions().bt601;
  GPUImageContext::useImageProcessingContext();
  const auto width = picture.width();
  const auto height = picture.height();
  // A picture that differs in one side only is squeezed into the size before: cameras change both or none.
  if (width != imageBufferWidth_ && height != imageBufferHeight_) {
    imageBufferWidth_ = width;
    imageBufferHeight_ = height;
  }
  {
    const auto luminance = bindPlane(picture, 0, GL_TEXTURE4, {GL_LUMINANCE, width, height, GL_LUMINANCE});
    if (luminance && width == imageBufferWidth_ && height == imageBufferHeight_) {
      // A pixel of the frame is one of the picture: there is nothing between two to be made out, at a cost.
      glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
      glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_NEAREST);
    }
    const auto chrominance =
        bindPlane(picture, 1, GL_TEXTURE5, {GL_LUMINANCE_ALPHA, width / 2, height / 2, GL_LUMINANCE_ALPHA});
    luminanceTexture_ = luminance ? luminance->name : 0;
    chrominanceTexture_ = chrominance ? chrominance->name : 0;
    convertYUVToRGBOutput();
  }
  const bool swaps = turnSwapsSides(internalRotation_);
  updateTargetsForVideoCameraUsingCacheTextureAtWidth(swaps ? height : width, swaps ? width : height,
                                                      sampleBuffer.presentationTime);
  if (runBenchmark_) {
    countFrame(std::chrono::duration<double>(platform_->clock->now() - begun).count());
  }
}

void GPUImageVideoCamera::convertYUVToRGBOutput() {
  GPUImageContext::setActiveShaderProgram(yuvConversionProgram_);
  Size size{static_cast<double>(imageBufferWidth_), static_cast<double>(imageBufferHeight_)};
  if (turnSwapsSides(internalRotation_)) {
    std::swap(size.width, size.height);
  }
  const auto output =
      GPUImageContext::sharedFramebufferCache()->fetchFramebufferForSize(size, outputTextureOptions(), false);
  setOutputFramebuffer(output);
  output->activateFramebuffer();
  glClearColor(0, 0, 0, 1);
  glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
  if (!yuvConversionProgram_) {
    return;
  }
  glActiveTexture(GL_TEXTURE4);
  glBindTexture(GL_TEXTURE_2D, luminanceTexture_);
  glUniform1i(yuvConversionLuminanceTextureUniform_, 4);
  glActiveTexture(GL_TEXTURE5);
  glBindTexture(GL_TEXTURE_2D, chrominanceTexture_);
  glUniform1i(yuvConversionChrominanceTextureUniform_, 5);
  glUniformMatrix3fv(yuvConversionMatrixUniform_, 1, GL_FALSE, preferredConversion_->data());
  glVertexAttribPointer(yuvConversionPositionAttribute_, 2, GL_FLOAT, GL_FALSE, 0, kWholeQuad.data());
  glVertexAttribPointer(yuvConversionTextureCoordinateAttribute_, 2, GL_FLOAT, GL_FALSE, 0,
                        textureCoordinatesForRotation(internalRotation_).data());
  glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
}

void GPUImageVideoCamera::updateTargetsForVideoCameraUsingCacheTextureAtWidth(std::size_t width, std::size_t height,
                                                                              MediaTime time) {
  const auto list = connections();
  const auto ignored = targetToIgnoreForUpdates();
  for (const auto& target : *list) {
    if (!target.input->enabled()) {
      continue;
    }
    target.input->setInputRotation(outputRotation_, target.index);
    if (target.input != ignored) {
      target.input->setInputSize({static_cast<double>(width), static_cast<double>(height)}, target.index);
      target.input->setCurrentlyReceivingMonochromeInput(target.input->wantsMonochromeInput());
      setInputFramebufferForTarget(*target.input, target.index);
    }
  }
  if (const auto output = framebufferForOutput()) {
    output->unlock();
  }
  removeOutputFramebuffer();
  for (const auto& target : *list) {
    if (target.input->enabled() && target.input != ignored) {
      target.input->newFrameReadyAtTime(time, target.index);
    }
  }
}

// ---- Benchmark

void GPUImageVideoCamera::countFrame(double seconds) {
  {
    const std::lock_guard lock(mutex_);
    if (++numberOfFramesCaptured_ <= kFramesBeforeBenchmark) {
      return;
    }
    totalFrameTimeDuringCapture_ += seconds;
  }
  ZEL_LOG_INFO("Live: camera frame: %f ms, average: %f ms", seconds * 1000, averageFrameDurationDuringCapture());
}

double GPUImageVideoCamera::averageFrameDurationDuringCapture() const {
  const std::lock_guard lock(mutex_);
  return numberOfFramesCaptured_ > kFramesBeforeBenchmark
             ? totalFrameTimeDuringCapture_ / static_cast<double>(numberOfFramesCaptured_ - kFramesBeforeBenchmark) *
                   1000
             : 0;
}

void GPUImageVideoCamera::resetBenchmarkAverage() {
  const std::lock_guard lock(mutex_);
  numberOfFramesCaptured_ = 0;
  totalFrameTimeDuringCapture_ = 0;
}

}  // namespace zellive
