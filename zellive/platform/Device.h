#pragma once

#include <cstdint>
#include <string_view>

#include "zellive/platform/Geometry.h"

namespace zellive {

/// Facts about the machine and the way it is held. Thread-safe.
class Device {
 public:
  virtual ~Device() = default;
  /// Bytes.
  [[nodiscard]] virtual std::uint64_t physicalMemory() const = 0;
  /// Bytes of this process in memory at present, or an error number of the system, negated.
  [[nodiscard]] virtual std::int64_t residentMemory() const = 0;
  /// The main screen, in points.
  [[nodiscard]] virtual Size screenBounds() const = 0;
  virtual void setScreenBounds(Size points) = 0;
  /// 0 unknown, 1 portrait, 2 upside down, 3 landscape left, 4 landscape right, 5 face up, 6 face down.
  [[nodiscard]] virtual std::int64_t deviceOrientation() const = 0;
  virtual void setDeviceOrientation(std::int64_t orientation) = 0;
  /// How the application's user interface is turned: 1 portrait, 2 upside down, 3 landscape right, 4 landscape left.
  /// The embedding application sets it, after it has posted that it is about to change.
  [[nodiscard]] virtual std::int64_t statusBarOrientation() const = 0;
  virtual void setStatusBarOrientation(std::int64_t orientation) = 0;
  /// Whether the screen is to stay on although nobody touches anything: capture asks for it while it runs. An
  /// application that can hold back a screen saver does so in a Device of its own.
  [[nodiscard]] virtual bool idleTimerDisabled() const = 0;
  virtual void setIdleTimerDisabled(bool disabled) = 0;
  /// Whether the front camera can deliver the named capture preset; true where there is no camera to ask.
  [[nodiscard]] virtual bool cameraSupportsPreset(std::string_view preset) const = 0;
};

}  // namespace zellive
