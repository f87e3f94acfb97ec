#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zellive/platform/CaptureSession.h"
#include "zellive/platform/linux/CameraFormats.h"

namespace zellive {

/// Takes what a running camera delivers. Called one call at a time, on a thread of the camera's; it neither blocks nor
/// logs.
class CameraFeedSink {
 public:
  virtual ~CameraFeedSink() = default;
  virtual void feedDelivers(CaptureSampleBuffer sampleBuffer) = 0;
  /// Nothing comes any more, for a reason in words for people.
  virtual void feedFails(std::string reason) = 0;
};

/// A camera that runs. Destroying it, on any thread, ends that: no call of the sink begins afterwards.
class CameraFeed {
 public:
  virtual ~CameraFeed() = default;
};

class CameraWatcher {
 public:
  virtual ~CameraWatcher() = default;
  /// The camera has come, gone, or been given other frame durations. On any thread; it neither blocks nor logs.
  virtual void cameraChanged() = 0;
};

/// What sessions of this machine run, real or not. Thread-safe.
class Camera : public CaptureDevice {
 public:
  /// Null when the camera is not there. The request's format is one of pixelFormats().
  [[nodiscard]] virtual std::unique_ptr<CameraFeed> open(const CameraRequest& request,
                                                         std::weak_ptr<CameraFeedSink> sink) = 0;
  /// Those that cost nothing, or are the only ones.
  [[nodiscard]] virtual std::vector<PixelFormat> pixelFormats() const = 0;

  /// What the camera says of itself; Unspecified for one that is external, or says nothing.
  [[nodiscard]] virtual CaptureDevicePosition statedPosition() const = 0;

  [[nodiscard]] CaptureDevicePosition position() const override;
  void setPosition(CaptureDevicePosition position);
  [[nodiscard]] bool lockForConfiguration(std::string& reason) override;
  void unlockForConfiguration() override;
  [[nodiscard]] bool hasTorch() const override { return false; }
  [[nodiscard]] int torchMode() const override { return 0; }
  void setTorchMode(int /*mode*/) override {}
  void setVideoZoomFactor(double /*factor*/) override {}
  [[nodiscard]] bool supportsFrameDurations() const override { return true; }
  void setActiveVideoFrameDurations(MediaTime least, MediaTime most) override;
  /// The least that was set here; 0 for none.
  [[nodiscard]] std::chrono::nanoseconds frameDuration() const;

  /// Held weakly; adding one twice has no effect.
  void addWatcher(const std::shared_ptr<CameraWatcher>& watcher);

 protected:
  void tellWatchers();

 private:
  mutable std::mutex mutex_;
  CaptureDevicePosition position_ = CaptureDevicePositionUnspecified;
  bool locked_ = false;
  std::chrono::nanoseconds frameDuration_{};
  std::vector<std::weak_ptr<CameraWatcher>> watchers_;
};

}  // namespace zellive
