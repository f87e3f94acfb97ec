#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zellive/platform/Log.h"
#include "zellive/platform/ManualTime.h"
#include "zellive/platform/Platform.h"

namespace zellive::test {

/// A Device whose every answer is set by the test.
class SettableDevice : public Device {
 public:
  [[nodiscard]] std::uint64_t physicalMemory() const override { return memory; }
  [[nodiscard]] std::int64_t residentMemory() const override { return resident; }
  [[nodiscard]] Size screenBounds() const override { return screen; }
  void setScreenBounds(Size points) override { screen = points; }
  [[nodiscard]] std::int64_t deviceOrientation() const override { return orientation; }
  void setDeviceOrientation(std::int64_t value) override { orientation = value; }
  [[nodiscard]] std::int64_t statusBarOrientation() const override { return statusBar; }
  void setStatusBarOrientation(std::int64_t value) override { statusBar = value; }
  [[nodiscard]] bool idleTimerDisabled() const override { return staysOn; }
  void setIdleTimerDisabled(bool value) override { staysOn = value; }
  [[nodiscard]] bool cameraSupportsPreset(std::string_view) const override { return true; }

  std::uint64_t memory = std::uint64_t{8} << 30;
  std::int64_t resident = 1 << 20;
  Size screen{375, 812};
  std::int64_t orientation = 1;
  std::int64_t statusBar = 1;
  bool staysOn = false;
};

class SettableReachability : public AFNetworkReachabilityManager {
 public:
  explicit SettableReachability(std::shared_ptr<NotificationCenter> notifications)
      : notifications_(std::move(notifications)) {}
  [[nodiscard]] ReachabilityStatus networkReachabilityStatus() const override { return status_; }
  void setNetworkReachabilityStatus(ReachabilityStatus status);

 private:
  std::shared_ptr<NotificationCenter> notifications_;
  std::atomic<ReachabilityStatus> status_ = ReachabilityStatus::ReachableViaWiFi;
};

/// A whole platform on manual time, with the machine's graphics. Encoders are null until a test puts its own in.
struct ManualPlatform {
  ManualPlatform() = default;
  /// Drops the work that has not run: it may hold objects that hold this platform.
  ~ManualPlatform();
  ManualPlatform(const ManualPlatform&) = delete;
  ManualPlatform& operator=(const ManualPlatform&) = delete;

  /// The set as it stands; later changes of the members below do not show in it.
  [[nodiscard]] std::shared_ptr<const Platform> platform() const;
  void advance(std::chrono::nanoseconds duration) { time->advance(duration); }
  void runPending() { time->runPending(); }

  std::shared_ptr<ManualTime> time = std::make_shared<ManualTime>();
  std::shared_ptr<NotificationCenter> notifications = std::make_shared<NotificationCenter>();
  std::shared_ptr<SettableDevice> device = std::make_shared<SettableDevice>();
  std::shared_ptr<SettableReachability> reachability = std::make_shared<SettableReachability>(notifications);
  std::shared_ptr<VideoCompressionService> videoCompression;
  std::shared_ptr<AudioConverterService> audioConversion;
  std::shared_ptr<GraphicsService> graphics = defaultPlatform()->graphics;
  std::shared_ptr<CameraService> cameras = defaultPlatform()->cameras;
  std::shared_ptr<AudioInputService> audioInputs = defaultPlatform()->audioInputs;
  std::shared_ptr<WindowService> windows = defaultPlatform()->windows;
  std::shared_ptr<QMZSdwan> companion = makeLoggedOutSdwan(time->globalQueue());
};

/// Takes the library's messages over while it exists. One at a time.
class LogCapture {
 public:
  /// `during` is called in the middle of each message.
  explicit LogCapture(std::function<void()> during = [] {});
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Messages that contain `part`, of one level or of any.
  [[nodiscard]] std::size_t count(LogLevel level, std::string_view part) const;
  [[nodiscard]] std::size_t count(std::string_view part) const {
    return count(LogLevel::Error, part) + count(LogLevel::Warning, part) + count(LogLevel::Information, part);
  }

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

}  // namespace zellive::test
