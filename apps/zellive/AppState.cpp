#include "apps/zellive/AppState.h"

namespace zellive::tool {

void AppState::setSuspended(bool suspended) { change(&AppState::suspended_, suspended); }

void AppState::setUnfocused(bool unfocused) { change(&AppState::unfocused_, unfocused); }

bool AppState::suspended() const {
  const std::lock_guard lock(mutex_);
  return suspended_;
}

void AppState::change(bool AppState::*reason, bool value) {
  const std::lock_guard lock(mutex_);
  const bool before = suspended_ || unfocused_;
  this->*reason = value;
  const bool now = suspended_ || unfocused_;
  if (before == now) {
    return;
  }
  // Resigning pauses the camera, and being in the background makes the session send its last picture instead: only both
  // together show viewers something.
  if (now) {
    notifications_->post(notification::WillResignActive);
    notifications_->post(notification::DidEnterBackground);
  } else {
    notifications_->post(notification::WillEnterForeground);
    notifications_->post(notification::DidBecomeActive);
  }
  told_(now);
}

}  // namespace zellive::tool
