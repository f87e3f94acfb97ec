#pragma once

#include <atomic>
#include <mutex>

#include "zellive/platform/Device.h"

namespace zellive {

/// This machine. A program without a window has no screen to ask, so the screen is 1920 × 1080 and held upright until
/// the application says otherwise.
class LinuxDevice : public Device {
 public:
  [[nodiscard]] std::uint64_t physicalMemory() const override;
  [[nodiscard]] std::int64_t residentMemory() const override;
  [[nodiscard]] Size screenBounds() const override;
  void setScreenBounds(Size points) override;
  [[nodiscard]] std::int64_t deviceOrientation() const override { return orientation_; }
  void setDeviceOrientation(std::int64_t orientation) override { orientation_ = orientation; }
  [[nodiscard]] bool cameraSupportsPreset(std::string_view preset) const override;

 private:
  mutable std::mutex mutex_;
  Size screen_{1920, 1080};
  std::atomic<std::int64_t> orientation_ = 1;
};

}  // namespace zellive
