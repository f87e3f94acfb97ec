#include "zellive/platform/linux/Camera.h"

namespace zellive {

CaptureDevicePosition Camera::position() const {
  const std::lock_guard lock(mutex_);
  return position_;
}

void Camera::setPosition(CaptureDevicePosition position) {
  const std::lock_guard lock(mutex_);
  position_ = position;
}

bool Camera::lockForConfiguration(std::string& reason) {
  if (!isConnected()) {
    reason = "the camera is not there";
    return false;
  }
  const std::lock_guard lock(mutex_);
  if (locked_) {
    reason = "somebody else is configuring the camera";
    return false;
  }
  locked_ = true;
  return true;
}

void Camera::unlockForConfiguration() {
  const std::lock_guard lock(mutex_);
  locked_ = false;
}

void Camera::setActiveVideoFrameDurations(MediaTime least, MediaTime /*most*/) {
  {
    const std::lock_guard lock(mutex_);
    frameDuration_ = frameDurationOf(least);
  }
  tellWatchers();
}

std::chrono::nanoseconds Camera::frameDuration() const {
  const std::lock_guard lock(mutex_);
  return frameDuration_;
}

void Camera::addWatcher(const std::shared_ptr<CameraWatcher>& watcher) {
  const std::lock_guard lock(mutex_);
  std::erase_if(watchers_, [&](const auto& weak) { return weak.expired() || weak.lock() == watcher; });
  watchers_.push_back(watcher);
}

void Camera::tellWatchers() {
  std::vector<std::shared_ptr<CameraWatcher>> watchers;
  {
    const std::lock_guard lock(mutex_);
    for (const auto& weak : watchers_) {
      if (auto watcher = weak.lock()) {
        watchers.push_back(std::move(watcher));
      }
    }
  }
  for (const auto& watcher : watchers) {
    watcher->cameraChanged();
  }
}

}  // namespace zellive
