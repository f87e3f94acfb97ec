#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zellive/platform/Log.h"
#include "zellive/platform/Platform.h"

namespace zellive::test {

/// Time that stands still until a test moves it, and queues that run only when a test says so, all on the test's thread
/// and in the order in which work falls due. Posting from other threads is allowed.
class ManualTime : public QueueService, public MediaClock {
 public:
  ManualTime();
  ~ManualTime() override;

  std::shared_ptr<Queue> makeSerialQueue(std::string label) override;
  std::shared_ptr<Queue> mainQueue() override { return main_; }
  std::shared_ptr<Queue> globalQueue() override { return global_; }
  [[nodiscard]] std::chrono::nanoseconds now() const override;
  [[nodiscard]] Date date() const override { return Date(std::chrono::duration_cast<Date::duration>(now())); }

  /// Runs everything that is due now, what it posts included.
  void runPending() { advance({}); }
  /// Moves time on by `duration`, stopping at each piece of delayed work to run it at its own time.
  void advance(std::chrono::nanoseconds duration);
  /// Calls the handler of the latest watch.
  void tellReadable();
  /// Drops all work that has not run, and what dropping it posts.
  void dropWork();
  /// Delayed pieces of work that are neither run nor cancelled.
  [[nodiscard]] std::size_t delayedWork() const;
  /// The queues that exist at present, by label.
  [[nodiscard]] std::vector<std::string> liveQueues() const;

 private:
  class ManualQueue;
  struct State;
  /// Runs the next piece of work that is due by `end`, at its own time. False when there is none: it is `end` now.
  bool runNext(std::chrono::nanoseconds end);
  const std::shared_ptr<State> state_;
  const std::shared_ptr<Queue> main_;
  const std::shared_ptr<Queue> global_;
};

/// A Device whose every answer is set by the test.
class SettableDevice : public Device {
 public:
  [[nodiscard]] std::uint64_t physicalMemory() const override { return memory; }
  [[nodiscard]] std::int64_t residentMemory() const override { return resident; }
  [[nodiscard]] Size screenBounds() const override { return screen; }
  void setScreenBounds(Size points) override { screen = points; }
  [[nodiscard]] std::int64_t deviceOrientation() const override { return orientation; }
  void setDeviceOrientation(std::int64_t value) override { orientation = value; }
  [[nodiscard]] bool cameraSupportsPreset(std::string_view) const override { return cameraAccepts; }

  std::uint64_t memory = std::uint64_t{8} << 30;
  std::int64_t resident = 1 << 20;
  Size screen{375, 812};
  std::int64_t orientation = 1;
  bool cameraAccepts = true;
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
