#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "zellive/platform/NotificationCenter.h"

namespace zellive::tool {

/// Whether the program is in front or in the background, told to the library as it wants to hear of it. In the
/// background viewers see the last picture; the sound goes on. Thread-safe.
class AppState {
 public:
  /// `told` is called after each change, on the thread that makes it, with whether the program is in the background.
  AppState(std::shared_ptr<NotificationCenter> notifications, std::function<void(bool)> told)
      : notifications_(std::move(notifications)), told_(std::move(told)) {}

  /// The person has sent it to the background, or called it back.
  void setSuspended(bool suspended);
  [[nodiscard]] bool suspended() const;
  /// Its window is not, or is again, the one in use.
  void setUnfocused(bool unfocused);

 private:
  void change(bool AppState::*reason, bool value);

  const std::shared_ptr<NotificationCenter> notifications_;
  const std::function<void(bool)> told_;
  mutable std::mutex mutex_;  // Held while observers are told, so that they hear of changes in order.
  bool suspended_ = false;
  bool unfocused_ = false;
};

}  // namespace zellive::tool
