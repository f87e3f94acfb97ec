#include "zellive/platform/linux/CameraSession.h"

#include <algorithm>
#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {

std::shared_ptr<CaptureSession> CameraSession::create(QueueService& queues, std::shared_ptr<MediaClock> clock) {
  const std::shared_ptr<CameraSession> session(new CameraSession(queues, std::move(clock)));
  // Cameras refer to the session while they call it, so its end may come on a thread of theirs, where no camera can be
  // stopped: that is done before, when the user's last reference goes.
  // Its own weak reference keeps what is captured here, which is let go by hand for that reason.
  const std::shared_ptr<CaptureSession> forUser(session.get(), [kept = session](CaptureSession*) mutable {
    kept->end();
    kept.reset();
  });
  session->self_ = forUser;
  return forUser;
}

CameraSession::CameraSession(QueueService& queues, std::shared_ptr<MediaClock> clock)
    : clock_(std::move(clock)), queue_(queues.makeSerialQueue("zellive.camera")) {}

void CameraSession::end() {
  stopRunning();
  setSampleBufferDelegate({}, nullptr);
  const std::lock_guard lock(feedMutex_);
  ended_ = true;
  feed_.reset();
  openCamera_.reset();
  removeInput();
  cancel(watch_);
  cancel(retry_);
}

// ---- What is wanted

void CameraSession::beginConfiguration() {
  const std::lock_guard lock(mutex_);
  ++configurations_;
}

void CameraSession::commitConfiguration() {
  {
    const std::lock_guard lock(mutex_);
    configurations_ = std::max(0, configurations_ - 1);
  }
  updateLater();
}

bool CameraSession::addInput(std::shared_ptr<CaptureDevice> device) {
  auto camera = std::dynamic_pointer_cast<Camera>(std::move(device));
  {
    const std::lock_guard lock(mutex_);
    if (!camera || camera_) {
      return false;
    }
    camera_ = camera;
  }
  camera->addWatcher(shared_from_this());
  updateLater();
  return true;
}

void CameraSession::removeInput() {
  {
    const std::lock_guard lock(mutex_);
    camera_.reset();
  }
  updateLater();
}

std::shared_ptr<CaptureDevice> CameraSession::input() const {
  const std::lock_guard lock(mutex_);
  return camera_;
}

std::vector<PixelFormat> CameraSession::availableVideoPixelFormats() const {
  const std::lock_guard lock(mutex_);
  return camera_ ? camera_->pixelFormats() : std::vector<PixelFormat>{};
}

bool CameraSession::addVideoDataOutput(PixelFormat format) {
  const auto offered = availableVideoPixelFormats();
  {
    const std::lock_guard lock(mutex_);
    if (format_ || std::find(offered.begin(), offered.end(), format) == offered.end()) {
      return false;
    }
    format_ = format;
  }
  updateLater();
  return true;
}

void CameraSession::removeVideoDataOutput() {
  {
    const std::lock_guard lock(mutex_);
    format_.reset();
  }
  updateLater();
}

void CameraSession::setSampleBufferDelegate(std::weak_ptr<CaptureVideoDataOutputDelegate> delegate,
                                            std::shared_ptr<Queue> queue) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
  std::swap(delegateQueue_, queue);
  ++delegateNumber_;
}

void CameraSession::setSessionPreset(std::string_view preset) {
  const auto size = sizeOfPreset(preset);
  if (!size) {
    ZEL_LOG_WARNING("Live: the camera preset %.*s is unknown; the former one stays", static_cast<int>(preset.size()),
                    preset.data());
    return;
  }
  {
    const std::lock_guard lock(mutex_);
    size_ = *size;
  }
  updateLater();
}

void CameraSession::setVideoFrameDurations(MediaTime least, MediaTime /*most*/) {
  {
    const std::lock_guard lock(mutex_);
    frameDuration_ = frameDurationOf(least);
  }
  updateLater();
}

void CameraSession::startRunning() {
  {
    const std::lock_guard lock(mutex_);
    running_ = true;
  }
  updateLater();
}

void CameraSession::stopRunning() {
  {
    const std::lock_guard lock(mutex_);
    running_ = false;
    dropPictures();
  }
  updateLater();
}

bool CameraSession::isRunning() const {
  const std::lock_guard lock(mutex_);
  return running_;
}

// ---- The camera

void CameraSession::onQueue(std::function<void(CameraSession&)> action) {
  queue_->async([weak = weak_from_this(), action = std::move(action)] {
    if (const auto self = weak.lock()) {
      self->run(action);
    }
  });
}

std::shared_ptr<DelayedWork> CameraSession::after(std::chrono::nanoseconds delay,
                                                  std::function<void(CameraSession&)> action) {
  return queue_->after(delay, [weak = weak_from_this(), action = std::move(action)] {
    if (const auto self = weak.lock()) {
      self->run(action);
    }
  });
}

void CameraSession::run(const std::function<void(CameraSession&)>& action) {
  std::vector<std::pair<LogLevel, std::string>> words;
  {
    const std::lock_guard lock(feedMutex_);
    if (!ended_) {
      action(*this);
    }
    words.swap(toTell_);
  }
  for (const auto& [level, text] : words) {
    QMZPrintLog(level, "CameraSession", __LINE__, "Live: the camera " + text);
  }
}

void CameraSession::update(bool reopens) {
  std::shared_ptr<Camera> camera;
  CameraRequest request;
  {
    const std::lock_guard lock(mutex_);
    if (configurations_ > 0) {
      return;
    }
    camera = running_ && format_ ? camera_ : nullptr;
    request = {format_.value_or(request.format), size_, frameDuration_};
  }
  if (camera && camera->frameDuration().count() > 0) {
    request.frameDuration = camera->frameDuration();
  }
  const bool connected = camera && camera->isConnected();
  if (connected && feed_ && camera == openCamera_ && request == openRequest_ && !reopens) {
    return;
  }
  if (camera != openCamera_) {
    trouble_ = Trouble::None;
    troubleWords_.clear();
    troubled_ = false;
  }
  feed_.reset();
  openCamera_ = camera;
  openRequest_ = request;
  cancel(watch_);
  cancel(retry_);
  if (!camera) {
    return;
  }
  if (!connected) {
    tellTrouble(Trouble::Gone, "has gone; it is taken up again when it is plugged in");
    return;
  }
  lastPicture_ = clock_->now();
  feed_ = camera->open(request, weak_from_this());
  watch();
}

void CameraSession::feedFails(std::string reason) {
  onQueue([reason = std::move(reason)](CameraSession& self) {
    // Whoever has gone is known to have gone.
    if (self.feed_ && self.openCamera_->isConnected()) {
      self.tellTrouble(Trouble::Fails, "cannot be used: " + reason + "; trying again");
      self.cancel(self.watch_);
      self.retryAfter(kRetryTime);
    }
  });
}

void CameraSession::retryAfter(std::chrono::nanoseconds delay) {
  cancel(retry_);
  retry_ = after(delay, [](CameraSession& self) {
    if (self.feed_ && self.troubled_) {
      self.update(true);
    }
  });
}

void CameraSession::cancel(std::shared_ptr<DelayedWork>& work) {
  if (const auto pending = std::exchange(work, nullptr)) {
    pending->cancel();
  }
}

/// Looks when the camera will have been silent for too long, if it is from now on.
void CameraSession::watch() {
  const std::chrono::nanoseconds limit =
      std::max<std::chrono::nanoseconds>(kSilenceLimit, openRequest_.frameDuration * 4);
  const auto silence = clock_->now() - lastPicture_.load();
  if (silence >= limit) {
    tellTrouble(Trouble::Silent, "delivers no pictures; waiting for it");
    retryAfter(kPatience);  // It may have been asked at a bad moment.
    return;
  }
  watch_ = after(limit - silence, [](CameraSession& self) {
    if (self.feed_) {
      self.watch();
    }
  });
}

void CameraSession::tellTrouble(Trouble trouble, const std::string& words) {
  // One that is known not to work is not silent on top of that.
  const bool known =
      trouble_ == trouble ? troubleWords_ == words : trouble == Trouble::Silent && trouble_ == Trouble::Fails;
  if (!known) {
    trouble_ = trouble;
    troubleWords_ = words;
    toTell_.emplace_back(LogLevel::Warning, '"' + openCamera_->localizedName() + "\" " + words);
  }
  troubled_ = true;
}

void CameraSession::tellEndOfTrouble() {
  if (feed_ && std::exchange(trouble_, Trouble::None) != Trouble::None) {
    troubleWords_.clear();
    toTell_.emplace_back(LogLevel::Information, '"' + openCamera_->localizedName() + "\" delivers pictures again");
    watch();
  }
}

// ---- The pictures

void CameraSession::feedDelivers(CaptureSampleBuffer sampleBuffer) {
  lastPicture_ = clock_->now();
  if (troubled_.exchange(false)) {
    onQueue([](CameraSession& self) { self.tellEndOfTrouble(); });
  }
  const std::lock_guard lock(mutex_);
  if (!running_ || !delegateQueue_) {
    return;
  }
  if (lateCount_ == kLatePictures) {
    firstLate_ = (firstLate_ + 1) % kLatePictures;
    --lateCount_;
  }
  late_[(firstLate_ + lateCount_++) % kLatePictures] = std::move(sampleBuffer);
  if (!delivering_) {
    deliverLater();
  }
}

void CameraSession::deliverLater() {
  delivering_ = true;
  delegateQueue_->async([weak = weak_from_this(), number = delegateNumber_] {
    if (const auto self = weak.lock()) {
      self->deliver(number);
    }
  });
}

void CameraSession::deliver(std::uint64_t delegateNumber) {
  const auto session = self_.lock();
  std::shared_ptr<CaptureVideoDataOutputDelegate> delegate;
  CaptureSampleBuffer sampleBuffer;
  {
    const std::lock_guard lock(mutex_);
    delivering_ = false;
    if (lateCount_ == 0 || !delegateQueue_) {
      dropPictures();
      return;
    }
    if (delegateNumber != delegateNumber_) {  // Not this queue's any more.
      deliverLater();
      return;
    }
    delegate = delegate_.lock();
    sampleBuffer = std::exchange(late_[firstLate_], {});
    firstLate_ = (firstLate_ + 1) % kLatePictures;
    --lateCount_;
    delivering_ = true;
  }
  if (delegate && session) {
    delegate->captureOutputDidOutputSampleBuffer(session.get(), sampleBuffer);
  }
  const std::lock_guard lock(mutex_);
  delivering_ = false;
  if (lateCount_ > 0 && delegateQueue_) {
    deliverLater();
  }
}

void CameraSession::dropPictures() {
  for (auto& picture : late_) {
    picture = {};
  }
  lateCount_ = 0;
}

}  // namespace zellive
