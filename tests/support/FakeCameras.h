#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "zellive/gpu/GPUImageVideoCamera.h"
#include "zellive/platform/CaptureSession.h"

namespace zellive::test {

/// Its controls take what they are given only while they are locked.
struct FakeCamera : CaptureDevice {
  FakeCamera(CaptureDevicePosition where, std::string called) : place(where), name(std::move(called)) {}
  [[nodiscard]] std::string uniqueID() const override { return name; }
  [[nodiscard]] std::string localizedName() const override { return name; }
  [[nodiscard]] CaptureDevicePosition position() const override { return place; }
  [[nodiscard]] bool isVirtual() const override { return true; }
  [[nodiscard]] bool isConnected() const override { return true; }
  [[nodiscard]] std::vector<CaptureDeviceFormat> formats() const override { return {}; }
  [[nodiscard]] bool lockForConfiguration(std::string& reason) override {
    reason = "held by somebody else";
    locked = lockable;
    return lockable;
  }
  void unlockForConfiguration() override { locked = false; }
  [[nodiscard]] bool hasTorch() const override { return torch; }
  [[nodiscard]] int torchMode() const override { return torchIs; }
  void setTorchMode(int mode) override { torchIs = locked ? mode : -1; }
  void setVideoZoomFactor(double factor) override { zoom = locked ? factor : -1; }
  [[nodiscard]] bool supportsFrameDurations() const override { return hasDurations; }
  void setActiveVideoFrameDurations(MediaTime least, MediaTime most) override {
    durations = locked && least == most ? most : MediaTime::indefinite();
  }

  const CaptureDevicePosition place;
  const std::string name;
  bool lockable = true, locked = false, torch = true, hasDurations = true;
  int torchIs = 0;
  double zoom = 0;
  MediaTime durations;
};

/// Delivers what the test hands it, on the test's thread.
struct FakeCaptureSession : CaptureSession {
  void beginConfiguration() override { ++open; }
  void commitConfiguration() override { --open; }
  [[nodiscard]] bool addInput(std::shared_ptr<CaptureDevice> device) override {
    return !camera && device != refused && (camera = std::move(device));
  }
  void removeInput() override { camera.reset(); }
  [[nodiscard]] std::shared_ptr<CaptureDevice> input() const override { return camera; }
  [[nodiscard]] std::vector<PixelFormat> availableVideoPixelFormats() const override { return formats; }
  [[nodiscard]] bool addVideoDataOutput(PixelFormat) override { return takesOutput; }
  void removeVideoDataOutput() override {}
  void setSampleBufferDelegate(std::weak_ptr<CaptureVideoDataOutputDelegate> next, std::shared_ptr<Queue>) override {
    const std::lock_guard lock(mutex);
    delegate = std::move(next);
  }
  void setSessionPreset(std::string_view name) override { preset = name; }
  void setVideoFrameDurations(MediaTime least, MediaTime most) override {
    durations = least == most ? most : MediaTime::indefinite();
  }
  void startRunning() override { running = true, ++starts; }
  void stopRunning() override { running = false; }
  [[nodiscard]] bool isRunning() const override { return running; }

  void deliver(std::shared_ptr<PixelBuffer> picture, std::int64_t time = 0) {
    std::unique_lock lock(mutex);
    const auto receiver = delegate.lock();
    lock.unlock();
    if (receiver) {
      receiver->captureOutputDidOutputSampleBuffer(this, {std::move(picture), MediaTime::make(time, 30)});
    }
  }

  std::mutex mutex;
  std::weak_ptr<CaptureVideoDataOutputDelegate> delegate;
  std::shared_ptr<CaptureDevice> camera, refused;
  std::vector<PixelFormat> formats{PixelFormat::BiPlanarVideoRange, PixelFormat::BiPlanarFullRange};
  std::string preset;
  MediaTime durations;
  bool takesOutput = true;
  int open = 0;
  std::atomic<int> starts = 0;
  std::atomic<bool> running = false;
};

struct FakeCameras : CameraService {
  [[nodiscard]] std::vector<std::shared_ptr<CaptureDevice>> devices() const override {
    return {all.begin(), all.end()};
  }
  [[nodiscard]] bool setDeviceAtPosition(CaptureDevicePosition, std::string_view) override { return false; }
  /// The one that the test prepared, or else a new one.
  [[nodiscard]] std::shared_ptr<CaptureSession> makeSession() override {
    session = next ? std::exchange(next, nullptr) : std::make_shared<FakeCaptureSession>();
    return session;
  }

  const std::shared_ptr<FakeCamera> rear = std::make_shared<FakeCamera>(CaptureDevicePositionBack, "rear");
  const std::shared_ptr<FakeCamera> front = std::make_shared<FakeCamera>(CaptureDevicePositionFront, "front");
  std::vector<std::shared_ptr<FakeCamera>> all{rear, front};
  std::shared_ptr<FakeCaptureSession> next = std::make_shared<FakeCaptureSession>();
  std::shared_ptr<FakeCaptureSession> session = next;
};

/// A video camera over a camera that gives one format. It is given pictures by its processVideoSampleBuffer().
inline std::shared_ptr<GPUImageVideoCamera> fakeVideoCamera(PixelFormat format) {
  const auto cameras = std::make_shared<FakeCameras>();
  cameras->next->formats = {format};
  auto platform = std::make_shared<Platform>(*defaultPlatform());
  platform->cameras = cameras;
  return GPUImageVideoCamera::create("AVCaptureSessionPreset1280x720", CaptureDevicePositionBack, platform);
}

}  // namespace zellive::test
