#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string_view>
#include <vector>

#include "zellive/capture/CaptureDelegates.h"
#include "zellive/platform/Platform.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"

namespace zellive {

/// Turns the microphone into blocks of PCM: interleaved signed 16-bit little-endian, at the configured rate and channel
/// count, in whatever sizes the microphone delivers them and without time stamps.
///
/// Created → setRunning(true) → running → setRunning(false) → stopped, any number of times. The start of an
/// interruption stops the microphone under an unchanged running(); its end does not start it again: the owner goes
/// through setRunning(false).
///
/// Which microphone it is, is the platform's choice (AudioInputService). Where the machine has no sound at all, the
/// capture exists and delivers nothing; one message says so.
///
/// Threads: every operation may be called on any thread, also from inside the delegate's method. Blocks arrive on the
/// microphone's real-time thread, which the delegate must not block; nothing of ours locks or allocates there. The last
/// reference to go stops the microphone, on the thread that lets go of it, without waiting for a delegate.
class ZelLiveAudioCapture : public std::enable_shared_from_this<ZelLiveAudioCapture> {
 public:
  using Configuration = std::shared_ptr<ZelLiveAudioConfiguration>;

  /// Makes the microphone ready, stopped. Null for a null configuration.
  [[nodiscard]] static std::shared_ptr<ZelLiveAudioCapture> create(
      Configuration configuration, std::shared_ptr<const Platform> platform = defaultPlatform());
  virtual ~ZelLiveAudioCapture();
  ZelLiveAudioCapture(const ZelLiveAudioCapture&) = delete;
  ZelLiveAudioCapture& operator=(const ZelLiveAudioCapture&) = delete;

  /// What was asked for last.
  [[nodiscard]] bool running() const { return running_; }
  /// Starts or stops on the task queue, a moment later; an unchanged value does nothing.
  void setRunning(bool running);
  /// Whether the task queue has started it.
  [[nodiscard]] bool isRunning() const { return isRunning_; }
  /// Blocks that the delegate gets while muted are all zero.
  [[nodiscard]] bool muted() const { return muted_; }
  void setMuted(bool muted) { muted_ = muted; }

  [[nodiscard]] std::shared_ptr<ZelLiveAudioCaptureDelegate> delegate() const;
  /// Held weakly. A call of the former one may be under way.
  void setDelegate(std::weak_ptr<ZelLiveAudioCaptureDelegate> delegate);

  [[nodiscard]] const Configuration& configuration() const { return configuration_; }
  [[nodiscard]] const std::shared_ptr<Queue>& taskQueue() const { return taskQueue_; }
  [[nodiscard]] const std::shared_ptr<AudioInputService>& component() const { return platform_->audioInputs; }
  /// Null where none could be made; valid as long as this object.
  [[nodiscard]] AudioInputUnit* componentInstance() const { return componentInstance_.get(); }

  /// The way of the sound has changed: logged. The microphone runs on.
  void handleRouteChange(const UserInfo& userInfo);
  void handleInterruption(std::string_view name, const UserInfo& userInfo);

 protected:
  ZelLiveAudioCapture(Configuration configuration, std::shared_ptr<const Platform> platform);
  /// What create() does after construction: the microphone and the notifications need a shared object.
  void setUp();
  /// There is no microphone to be had: a hook, which does nothing here.
  virtual void handleAudioComponentCreationFailure() {}

 private:
  using Delegate = std::weak_ptr<ZelLiveAudioCaptureDelegate>;

  void onTaskQueue(void (ZelLiveAudioCapture::*job)());
  void start();
  void stop();
  void stopInterrupted();
  void receive(int status, std::span<std::uint8_t> block);
  std::shared_ptr<ZelLiveAudioCaptureDelegate> currentDelegate() const;

  const Configuration configuration_;
  const std::shared_ptr<const Platform> platform_;
  const std::shared_ptr<Queue> taskQueue_;
  std::unique_ptr<AudioInputUnit> componentInstance_;
  std::vector<NotificationCenter::Observation> observations_;

  std::mutex runningLock_;  ///< Jobs are queued in the order of the changes.
  std::atomic<bool> running_{false};
  std::atomic<bool> isRunning_{false};
  std::atomic<bool> muted_{false};

  // The real-time thread reads the delegate without a lock: a former one is kept until nobody can be reading it.
  std::mutex delegatesLock_;
  std::vector<std::unique_ptr<const Delegate>> delegates_;
  std::atomic<const Delegate*> delegate_{nullptr};
  mutable std::atomic<int> delegateReaders_{0};
};

}  // namespace zellive
