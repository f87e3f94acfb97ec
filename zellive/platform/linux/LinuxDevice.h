#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

#include "zellive/platform/CaptureSession.h"
#include "zellive/platform/Device.h"

namespace zellive {

/// This machine. A program without a window has no screen to ask, so the screen is 1920 × 1080 and held upright until
/// the application says otherwise. Nor is there one screen saver to hold back: that wish is kept for the application
/// to read.
class LinuxDevice : public Device {
 public:
  explicit LinuxDevice(std::shared_ptr<CameraService> cameras) : cameras_(std::move(cameras)) {}

  [[nodiscard]] std::uint64_t physicalMemory() const override;
  [[nodiscard]] std::int64_t residentMemory() const override;
  [[nodiscard]] Size screenBounds() const override;
  void setScreenBounds(Size points) override;
  [[nodiscard]] std::int64_t deviceOrientation() const override { return orientation_; }
  void setDeviceOrientation(std::int64_t orientation) override { orientation_ = orientation; }
  [[nodiscard]] std::int64_t statusBarOrientation() const override { return statusBarOrientation_; }
  void setStatusBarOrientation(std::int64_t orientation) override { statusBarOrientation_ = orientation; }
  [[nodiscard]] bool idleTimerDisabled() const override { return idleTimerDisabled_; }
  void setIdleTimerDisabled(bool disabled) override { idleTimerDisabled_ = disabled; }
  [[nodiscard]] bool cameraSupportsPreset(std::string_view preset) const override;

 private:
  const std::shared_ptr<CameraService> cameras_;
  mutable std::mutex mutex_;
  Size screen_{1920, 1080};
  std::atomic<std::int64_t> orientation_ = 1;
  std::atomic<std::int64_t> statusBarOrientation_ = 1;
  std::atomic<bool> idleTimerDisabled_ = false;
};

}  // namespace zellive
