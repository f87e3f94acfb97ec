#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zellive/platform/Log.h"
#include "zellive/platform/MediaClock.h"
#include "zellive/platform/linux/Camera.h"

namespace zellive {

/// The session of every kind of camera. Cameras are opened and closed on a queue of its own, from which people are told
/// of trouble: a camera that is gone, cannot be used, or delivers nothing. Each trouble is told once, and its end.
class CameraSession : public CaptureSession,
                      public CameraFeedSink,
                      public CameraWatcher,
                      public std::enable_shared_from_this<CameraSession> {
 public:
  /// A camera that delivers nothing for so long, or for four of its frame durations, is in trouble.
  static constexpr auto kSilenceLimit = std::chrono::seconds(3);
  /// Between attempts to use a camera that cannot be used.
  static constexpr auto kRetryTime = std::chrono::seconds(2);
  /// For one that is silent to be opened anew.
  static constexpr auto kPatience = std::chrono::seconds(10);
  /// Pictures that wait for the delegate; the oldest makes room for the newest.
  static constexpr std::size_t kLatePictures = 5;

  [[nodiscard]] static std::shared_ptr<CaptureSession> create(QueueService& queues, std::shared_ptr<MediaClock> clock);

  void beginConfiguration() override;
  void commitConfiguration() override;
  [[nodiscard]] bool addInput(std::shared_ptr<CaptureDevice> device) override;
  void removeInput() override;
  [[nodiscard]] std::shared_ptr<CaptureDevice> input() const override;
  [[nodiscard]] std::vector<PixelFormat> availableVideoPixelFormats() const override;
  [[nodiscard]] bool addVideoDataOutput(PixelFormat format) override;
  void removeVideoDataOutput() override;
  void setSampleBufferDelegate(std::weak_ptr<CaptureVideoDataOutputDelegate> delegate,
                               std::shared_ptr<Queue> queue) override;
  void setSessionPreset(std::string_view preset) override;
  void setVideoFrameDurations(MediaTime least, MediaTime most) override;
  void startRunning() override;
  void stopRunning() override;
  [[nodiscard]] bool isRunning() const override;

  void feedDelivers(CaptureSampleBuffer sampleBuffer) override;
  void feedFails(std::string reason) override;
  void cameraChanged() override { updateLater(); }

 private:
  enum class Trouble { None, Gone, Fails, Silent };

  CameraSession(QueueService& queues, std::shared_ptr<MediaClock> clock);
  /// The last thing that happens to it: the camera stops, and no picture is delivered any more.
  void end();

  void updateLater() {
    onQueue([](CameraSession& self) { self.update(); });
  }
  /// Runs `action` on the queue with feedMutex_, and then tells people what it has to tell, without any lock.
  void onQueue(std::function<void(CameraSession&)> action);
  [[nodiscard]] std::shared_ptr<DelayedWork> after(std::chrono::nanoseconds delay,
                                                   std::function<void(CameraSession&)> action);
  void run(const std::function<void(CameraSession&)>& action);

  // With feedMutex_.
  void update(bool reopens = false);
  void retryAfter(std::chrono::nanoseconds delay);
  static void cancel(std::shared_ptr<DelayedWork>& work);
  void watch();
  void tellTrouble(Trouble trouble, const std::string& words);
  void tellEndOfTrouble();

  // With mutex_.
  void deliverLater();
  void dropPictures();
  void deliver(std::uint64_t delegateNumber);

  const std::shared_ptr<MediaClock> clock_;
  const std::shared_ptr<Queue> queue_;
  std::weak_ptr<CaptureSession> self_;  // As the session's user has it.

  mutable std::mutex mutex_;  // Guards what is wanted, and what is on its way to the delegate.
  int configurations_ = 0;
  std::shared_ptr<Camera> camera_;
  std::optional<PixelFormat> format_;
  PictureSize size_{640, 480};
  std::chrono::nanoseconds frameDuration_{};
  bool running_ = false;
  std::weak_ptr<CaptureVideoDataOutputDelegate> delegate_;
  std::shared_ptr<Queue> delegateQueue_;
  std::uint64_t delegateNumber_ = 0;
  std::array<CaptureSampleBuffer, kLatePictures> late_;
  std::size_t firstLate_ = 0;
  std::size_t lateCount_ = 0;
  bool delivering_ = false;

  std::mutex feedMutex_;  // Guards what is done; taken before any lock of a camera's.
  bool ended_ = false;
  std::shared_ptr<Camera> openCamera_;
  CameraRequest openRequest_;
  std::unique_ptr<CameraFeed> feed_;
  std::shared_ptr<DelayedWork> watch_;
  std::shared_ptr<DelayedWork> retry_;
  Trouble trouble_ = Trouble::None;
  std::string troubleWords_;
  std::vector<std::pair<LogLevel, std::string>> toTell_;

  std::atomic<std::chrono::nanoseconds> lastPicture_{};
  std::atomic<bool> troubled_ = false;  // The next picture is news.
};

}  // namespace zellive
