#include "zellive/capture/ZelLiveVideoCapture.h"

#include <limits>
#include <string>
#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/platform/Log.h"

namespace zellive {
namespace {

enum InterfaceOrientation : std::int64_t {
  Portrait = 1,
  PortraitUpsideDown = 2,
  LandscapeRight = 3,
  LandscapeLeft = 4
};

constexpr std::int64_t oppositeOf(std::int64_t orientation) {
  return orientation % 2 == 1 ? orientation + 1 : orientation - 1;
}

std::string textOf(const UserInfo& userInfo) {
  std::string text = "{";
  for (const auto& [key, value] : userInfo) {
    text += key + " = " + std::to_string(value) + ";";
  }
  return text + "}";
}

std::int32_t frameRateOf(auto rate) {
  constexpr auto kMost = std::numeric_limits<std::int32_t>::max();
  return std::cmp_less(rate, kMost) ? static_cast<std::int32_t>(rate) : kMost;
}

std::string namesOf(const CameraService& cameras) {
  std::string names;
  for (const auto& device : cameras.devices()) {
    names += (names.empty() ? "" : ", ") + device->localizedName();
  }
  return names.empty() ? "none" : names;
}

}  // namespace

// ---- Making and ending

std::shared_ptr<ZelLiveVideoCapture> ZelLiveVideoCapture::create(
    std::shared_ptr<ZelLiveVideoConfiguration> configuration, std::shared_ptr<const Platform> platform) {
  std::shared_ptr<ZelLiveVideoCapture> capture(new ZelLiveVideoCapture(std::move(configuration), std::move(platform)));
  capture->observeApplication();
  capture->setZoomScale(1.0);
  return capture;
}

ZelLiveVideoCapture::ZelLiveVideoCapture(std::shared_ptr<ZelLiveVideoConfiguration> configuration,
                                         std::shared_ptr<const Platform> platform)
    : configuration_(std::move(configuration)), platform_(std::move(platform)) {}

void ZelLiveVideoCapture::observeApplication() {
  const auto observe = [this](const char* name, auto handler) {
    observations_.push_back(
        platform_->notifications->addObserver(name, [weak = weak_from_this(), handler](const UserInfo& userInfo) {
          if (const auto self = weak.lock()) {
            handler(*self, userInfo);
          }
        }));
  };
  observe(notification::WillResignActive, [](auto& self, const UserInfo&) { self.willEnterBackground(); });
  observe(notification::DidBecomeActive, [](auto& self, const UserInfo&) { self.willEnterForeground(); });
  observe(notification::WillChangeStatusBarOrientation,
          [](auto& self, const UserInfo& userInfo) { self.statusBarChanged(userInfo); });
}

ZelLiveVideoCapture::~ZelLiveVideoCapture() {
  platform_->device->setIdleTimerDisabled(false);
  observations_.clear();
  if (videoCamera_) {
    videoCamera_->stopCameraCapture();
    videoCamera_.reset();
  }
  if (gpuImageView_) {
    gpuImageView_->removeFromSuperview();
    gpuImageView_.reset();
  }
  removeAllTargets();
}

// ---- Stages

template <typename Stage>
std::shared_ptr<Stage> ZelLiveVideoCapture::existing(std::shared_ptr<Stage> ZelLiveVideoCapture::*stage) const {
  const std::lock_guard lock(mutex_);
  return this->*stage;
}

template <typename Stage, typename Make>
std::shared_ptr<Stage> ZelLiveVideoCapture::lazily(std::shared_ptr<Stage> ZelLiveVideoCapture::*stage, Make make) {
  if (auto found = existing(stage)) {
    return found;
  }
  // Making one may wait for the video-processing queue, which may be waiting for the lock. Of two the first stays.
  std::shared_ptr<Stage> made = make();
  const std::lock_guard lock(mutex_);
  if (!(this->*stage)) {
    this->*stage = made;
  }
  return this->*stage;
}

std::shared_ptr<GPUImageVideoCamera> ZelLiveVideoCapture::videoCamera() {
  if (auto found = existing(&ZelLiveVideoCapture::videoCamera_)) {
    return found;
  }
  auto camera = lazily(&ZelLiveVideoCapture::videoCamera_, [this] { return makeCamera(); });
  if (camera && running_) {  // There was none when it began to run.
    reloadFilter();
    followRunning();
  }
  return camera;
}

std::shared_ptr<GPUImageVideoCamera> ZelLiveVideoCapture::makeCamera() {
  auto camera = GPUImageVideoCamera::create(configuration_->avSessionPreset(), CaptureDevicePositionFront, platform_);
  if (!camera) {
    if (!saidNoCamera_.exchange(true)) {
      ZEL_LOG_ERROR("Live: no front camera can be used, so there are no pictures; cameras of this machine: %s",
                    namesOf(*platform_->cameras).c_str());
    }
    return nullptr;
  }
  camera->setOutputImageOrientation(configuration_->outputImageOrientation());
  camera->setHorizontallyMirrorFrontFacingCamera(false);
  camera->setHorizontallyMirrorRearFacingCamera(false);
  camera->setFrameRate(frameRateOf(configuration_->videoFrameRate()));
  return camera;
}

std::shared_ptr<GPUImageView> ZelLiveVideoCapture::gpuImageView() {
  return lazily(&ZelLiveVideoCapture::gpuImageView_, [this] {
    const auto screen = platform_->device->screenBounds();
    auto view = GPUImageView::create({0, 0, screen.width, screen.height});
    view->setFillMode(GPUImageFillMode::PreserveAspectRatioAndFill);
    view->setAutoresizing(ViewAutoresizingFlexibleWidth | ViewAutoresizingFlexibleHeight);
    return view;
  });
}

std::shared_ptr<View> ZelLiveVideoCapture::waterMarkContentView() {
  return lazily(&ZelLiveVideoCapture::waterMarkContentView_, [this] {
    const auto size = configuration_->captureOutVideoSize();
    auto view = std::make_shared<View>(Rect{0, 0, size.width, size.height});
    view->setAutoresizing(ViewAutoresizingFlexibleWidth | ViewAutoresizingFlexibleHeight);
    return view;
  });
}

std::shared_ptr<GPUImageUIElement> ZelLiveVideoCapture::uiElementInput() {
  return lazily(&ZelLiveVideoCapture::uiElementInput_,
                [this] { return GPUImageUIElement::create(waterMarkContentView()); });
}

std::shared_ptr<GPUImageAlphaBlendFilter> ZelLiveVideoCapture::blendFilter() {
  return lazily(&ZelLiveVideoCapture::blendFilter_, [] {
    auto blend = GPUImageAlphaBlendFilter::create();
    blend->setMix(1.0);
    // The watermark is drawn once, and every frame of the camera is blended with it.
    blend->disableSecondFrameCheck();
    return blend;
  });
}

std::shared_ptr<ZelLiveGPUImageEmptyFilter> ZelLiveVideoCapture::filter() const {
  return existing(&ZelLiveVideoCapture::filter_);
}

std::shared_ptr<ZelLiveGPUImageEmptyFilter> ZelLiveVideoCapture::output() const {
  return existing(&ZelLiveVideoCapture::output_);
}

// ---- Chain

void ZelLiveVideoCapture::removeAllTargets() {
  const auto clear = [](const std::shared_ptr<GPUImageOutput>& stage) {
    if (stage) {
      stage->removeAllTargets();
    }
  };
  clear(existing(&ZelLiveVideoCapture::filter_));
  clear(existing(&ZelLiveVideoCapture::blendFilter_));
  clear(existing(&ZelLiveVideoCapture::uiElementInput_));
  clear(existing(&ZelLiveVideoCapture::videoCamera_));
  clear(existing(&ZelLiveVideoCapture::output_));
}

void ZelLiveVideoCapture::reloadFilter() {
  const auto camera = videoCamera();
  const auto preview = gpuImageView();
  const auto mark = waterMarkView();
  const auto blend = mark ? blendFilter() : nullptr;
  const auto element = mark ? uiElementInput() : nullptr;
  const auto output = ZelLiveGPUImageEmptyFilter::create();
  const auto filter = ZelLiveGPUImageEmptyFilter::create();
  // In one piece, so that no frame finds half a chain.
  runSynchronouslyOnVideoProcessingQueue([&] {
    removeAllTargets();
    auto formerOutput = output;
    auto formerFilter = filter;
    {
      const std::lock_guard lock(mutex_);
      output_.swap(formerOutput);
      filter_.swap(formerFilter);
    }
    reloadMirror();
    if (camera) {
      camera->addTarget(filter);
    }
    const auto size = configuration_->captureOutVideoSize();
    if (mark) {
      filter->addTarget(blend);
      element->addTarget(blend);
      blend->addTarget(preview);
      // Past the blend: the watermark is for those who look at the preview.
      filter->addTarget(output);
      blend->forceProcessingAtSize(size);
    } else {
      filter->addTarget(output);
      output->addTarget(preview);
    }
    filter->forceProcessingAtSize(size);
    output->forceProcessingAtSize(size);
    output->setFrameProcessingCompletionBlock([weak = weak_from_this()](const GPUImageOutput& stage, MediaTime) {
      if (const auto self = weak.lock()) {
        self->processVideo(stage);
      }
    });
  });
  if (mark) {
    element->update();
  }
}

void ZelLiveVideoCapture::processVideo(const GPUImageOutput& output) {
  std::shared_ptr<ZelLiveVideoCaptureDelegate> delegate;
  {
    const std::lock_guard lock(mutex_);
    delegate = delegate_.lock();
  }
  const auto framebuffer = delegate ? output.framebufferForOutput() : nullptr;
  if (auto pixelBuffer = framebuffer ? framebuffer->pixelBuffer() : nullptr) {
    delegate->videoCaptureOutputPixelBuffer(this, std::move(pixelBuffer));
  }
}

void ZelLiveVideoCapture::setDelegate(std::weak_ptr<ZelLiveVideoCaptureDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

// ---- Running and preview

void ZelLiveVideoCapture::setRunning(bool running) {
  if (running_.exchange(running) == running) {
    return;
  }
  if (running) {
    reloadFilter();
  }
  followRunning();
}

void ZelLiveVideoCapture::followRunning() {
  const std::lock_guard lock(runLock_);
  const bool running = running_;
  platform_->device->setIdleTimerDisabled(running);
  if (const auto camera = existing(&ZelLiveVideoCapture::videoCamera_)) {
    running ? camera->startCameraCapture() : camera->stopCameraCapture();
  }
}

void ZelLiveVideoCapture::setPreView(const std::shared_ptr<View>& view) {
  const auto preview = gpuImageView();
  preview->removeFromSuperview();
  if (view) {
    view->insertSubview(preview, 0);
    const auto frame = view->frame();
    preview->setFrame({0, 0, frame.width, frame.height});
  }
}

std::shared_ptr<View> ZelLiveVideoCapture::preView() const {
  const auto preview = existing(&ZelLiveVideoCapture::gpuImageView_);
  return preview ? preview->superview() : nullptr;
}

// ---- Camera

std::int64_t ZelLiveVideoCapture::captureDevicePosition() {
  const auto camera = videoCamera();
  return camera ? camera->cameraPosition() : CaptureDevicePositionUnspecified;
}

void ZelLiveVideoCapture::setCaptureDevicePosition(std::int64_t position) {
  const auto camera = videoCamera();
  if (!camera || camera->cameraPosition() == position) {
    return;
  }
  camera->rotateCamera();
  camera->setFrameRate(frameRateOf(configuration_->videoFrameRate()));
  reloadMirror();
}

void ZelLiveVideoCapture::reloadMirror() {
  if (const auto camera = existing(&ZelLiveVideoCapture::videoCamera_)) {
    camera->setHorizontallyMirrorFrontFacingCamera(mirror_ && camera->cameraPosition() == CaptureDevicePositionFront);
  }
}

std::int64_t ZelLiveVideoCapture::videoFrameRate() {
  const auto camera = videoCamera();
  return camera ? camera->frameRate() : 0;
}

void ZelLiveVideoCapture::setVideoFrameRate(std::int64_t rate) {
  const auto camera = videoCamera();
  if (camera && rate >= 1 && rate != camera->frameRate()) {
    camera->setFrameRate(frameRateOf(rate));
  }
}

bool ZelLiveVideoCapture::torch() {
  const auto camera = videoCamera();
  return camera && camera->inputCamera()->torchMode() != 0;
}

void ZelLiveVideoCapture::setTorch(bool on) {
  const auto camera = videoCamera();
  if (!camera) {
    return;
  }
  const auto session = camera->captureSession();
  session->beginConfiguration();
  const auto device = camera->inputCamera();
  std::string reason;
  if (!device->hasTorch()) {
    ZEL_LOG_INFO("Live: Torch not available in current camera input");
  } else if (device->lockForConfiguration(reason)) {
    device->setTorchMode(on ? 1 : 0);
    device->unlockForConfiguration();
  } else {
    ZEL_LOG_ERROR("Live: Error while locking device for torch: %s", reason.c_str());
  }
  session->commitConfiguration();
}

void ZelLiveVideoCapture::setZoomScale(double scale) {
  const auto camera = videoCamera();
  const auto device = camera ? camera->inputCamera() : nullptr;
  if (std::string reason; device && device->lockForConfiguration(reason)) {
    device->setVideoZoomFactor(scale);
    device->unlockForConfiguration();
    zoomScale_ = scale;
  }
}

// ---- Watermark

std::shared_ptr<View> ZelLiveVideoCapture::waterMarkView() const {
  return existing(&ZelLiveVideoCapture::waterMarkView_);
}

void ZelLiveVideoCapture::setWaterMarkView(std::shared_ptr<View> view) {
  auto former = view;
  {
    const std::lock_guard lock(mutex_);
    waterMarkView_.swap(former);
  }
  if (former) {
    former->removeFromSuperview();
  }
  if (view) {
    blendFilter()->setMix(view->alpha());
  }
  reloadFilter();
}

// ---- Application

void ZelLiveVideoCapture::willEnterBackground() {
  platform_->device->setIdleTimerDisabled(false);
  if (const auto camera = existing(&ZelLiveVideoCapture::videoCamera_)) {
    camera->pauseCameraCapture();
  }
  GPUImageContext::finishDrawing();
}

void ZelLiveVideoCapture::willEnterForeground() {
  if (const auto camera = existing(&ZelLiveVideoCapture::videoCamera_)) {
    camera->resumeCameraCapture();
  }
  platform_->device->setIdleTimerDisabled(true);
}

void ZelLiveVideoCapture::statusBarChanged(const UserInfo& userInfo) {
  ZEL_LOG_INFO("Live: UIApplicationWillChangeStatusBarOrientationNotification userInfo %s", textOf(userInfo).c_str());
  const auto camera = existing(&ZelLiveVideoCapture::videoCamera_);
  if (!configuration_->autorotate() || !camera) {
    return;
  }
  // The one that is being left. There is one other of its kind to go to.
  const auto left = platform_->device->statusBarOrientation();
  if (configuration_->landscape() ? left == LandscapeRight || left == LandscapeLeft
                                  : left == Portrait || left == PortraitUpsideDown) {
    camera->setOutputImageOrientation(oppositeOf(left));
  }
}

}  // namespace zellive
