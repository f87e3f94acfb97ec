#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zellive/platform/MediaTime.h"
#include "zellive/platform/PixelBuffer.h"
#include "zellive/platform/Queue.h"

namespace zellive {

/// Where a camera looks, seen from the person who uses the machine.
enum CaptureDevicePosition : std::int64_t {
  CaptureDevicePositionUnspecified = 0,
  CaptureDevicePositionBack = 1,
  CaptureDevicePositionFront = 2,
};

/// One way in which a camera can deliver pictures.
struct CaptureDeviceFormat {
  std::string encoding;  ///< As people write it: "NV12", "YUY2", "MJPEG" …
  std::size_t width = 0;
  std::size_t height = 0;
  double minFrameRate = 0;  ///< Pictures per second; 0 when the camera does not say.
  double maxFrameRate = 0;
};

/// A camera. What it is stays as it is; a camera that is plugged in again is the same one. Thread-safe.
class CaptureDevice {
 public:
  virtual ~CaptureDevice() = default;

  /// For programs: the same each time that the camera is plugged in.
  [[nodiscard]] virtual std::string uniqueID() const = 0;
  /// For people.
  [[nodiscard]] virtual std::string localizedName() const = 0;
  [[nodiscard]] virtual CaptureDevicePosition position() const = 0;
  /// Whether it exists in software only.
  [[nodiscard]] virtual bool isVirtual() const = 0;
  [[nodiscard]] virtual bool isConnected() const = 0;
  [[nodiscard]] virtual std::vector<CaptureDeviceFormat> formats() const = 0;

  /// The controls below are changed between these two. False, with the reason, when the camera is gone or held by
  /// somebody else.
  [[nodiscard]] virtual bool lockForConfiguration(std::string& reason) = 0;
  virtual void unlockForConfiguration() = 0;

  [[nodiscard]] virtual bool hasTorch() const = 0;
  /// 0 off, 1 on.
  [[nodiscard]] virtual int torchMode() const = 0;
  virtual void setTorchMode(int mode) = 0;
  /// 1.0 for the whole picture. No effect where there is no such control.
  virtual void setVideoZoomFactor(double factor) = 0;
  /// Whether the durations between frames can be set here; else they are set on the session.
  [[nodiscard]] virtual bool supportsFrameDurations() const = 0;
  /// Seconds between pictures, least and most; no time at all (flags 0) for the camera's own.
  virtual void setActiveVideoFrameDurations(MediaTime least, MediaTime most) = 0;
};

/// A picture as it came from the camera.
struct CaptureSampleBuffer {
  /// Bi-planar, with the colour matrix that the camera names. Nobody writes it any more.
  std::shared_ptr<PixelBuffer> imageBuffer;
  /// When it was taken, on the media clock.
  MediaTime presentationTime;
};

class CaptureSession;

/// Receives pictures one at a time, on the queue that it was set with.
class CaptureVideoDataOutputDelegate {
 public:
  virtual ~CaptureVideoDataOutputDelegate() = default;
  virtual void captureOutputDidOutputSampleBuffer(CaptureSession* session, const CaptureSampleBuffer& sampleBuffer) = 0;
};

/// Runs one camera into one output. A camera that vanishes while the session runs is waited for and taken up again; the
/// session runs on meanwhile, without pictures. What happens to the camera is logged in words for a person.
/// Thread-safe.
class CaptureSession {
 public:
  /// Stops; no call of the delegate begins afterwards.
  virtual ~CaptureSession() = default;

  /// Changes between these two take effect together; calls nest.
  virtual void beginConfiguration() = 0;
  virtual void commitConfiguration() = 0;

  /// False when the session has a camera or does not take this one.
  [[nodiscard]] virtual bool addInput(std::shared_ptr<CaptureDevice> device) = 0;
  virtual void removeInput() = 0;
  [[nodiscard]] virtual std::shared_ptr<CaptureDevice> input() const = 0;

  /// Formats that the session can deliver from its camera, converting where the camera has nothing else.
  [[nodiscard]] virtual std::vector<PixelFormat> availableVideoPixelFormats() const = 0;
  /// False when the session has an output or does not offer the format. Pictures that the output is late for are kept,
  /// up to a handful.
  [[nodiscard]] virtual bool addVideoDataOutput(PixelFormat format) = 0;
  virtual void removeVideoDataOutput() = 0;
  /// Held weakly. Null: no call begins afterwards, but for one that is being handed over on another thread.
  virtual void setSampleBufferDelegate(std::weak_ptr<CaptureVideoDataOutputDelegate> delegate,
                                       std::shared_ptr<Queue> queue) = 0;
  /// A size by its preset name, "AVCaptureSessionPreset1280x720"; the camera's nearest where it has no such size.
  virtual void setSessionPreset(std::string_view preset) = 0;
  /// As for CaptureDevice::setActiveVideoFrameDurations, for cameras that do not support them.
  virtual void setVideoFrameDurations(MediaTime least, MediaTime most) = 0;

  virtual void startRunning() = 0;
  virtual void stopRunning() = 0;
  /// What was asked for last.
  [[nodiscard]] virtual bool isRunning() const = 0;
};

struct VirtualCamera;

/// The machine's cameras. Thread-safe.
class CameraService {
 public:
  virtual ~CameraService() = default;

  /// Those connected at present, real ones first.
  [[nodiscard]] virtual std::vector<std::shared_ptr<CaptureDevice>> devices() const = 0;
  /// From now on the camera of this name or unique ID is the one at `position`, whatever the cameras say of themselves.
  /// False when there is no such camera.
  [[nodiscard]] virtual bool setDeviceAtPosition(CaptureDevicePosition position, std::string_view name) = 0;
  /// From now on the application's own camera is among the virtual ones. False when it has no formats or nothing that
  /// makes its pictures, when its unique ID is taken, or where there can be none.
  [[nodiscard]] virtual bool addVirtualCamera(const VirtualCamera& /*camera*/) { return false; }
  /// Null where the machine has no cameras at all.
  [[nodiscard]] virtual std::shared_ptr<CaptureSession> makeSession() = 0;
};

}  // namespace zellive
