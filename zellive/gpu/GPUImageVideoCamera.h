#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "zellive/gpu/ColorConversion.h"
#include "zellive/gpu/GLProgram.h"
#include "zellive/gpu/GPUImageOutput.h"
#include "zellive/platform/CaptureSession.h"
#include "zellive/platform/Platform.h"
#include "zellive/platform/Semaphore.h"

namespace zellive {

/// The matrices that cameras use from now on: for video range BT.601, full range BT.601 and BT.709. Any thread.
void setColorConversion601(const ColorConversion& conversion);
void setColorConversion601FullRange(const ColorConversion& conversion);
void setColorConversion709(const ColorConversion& conversion);

/// Sees a camera's pictures before they are drawn.
class GPUImageVideoCameraDelegate {
 public:
  virtual ~GPUImageVideoCameraDelegate() = default;
  /// On the video-processing queue.
  virtual void willOutputSampleBuffer(const CaptureSampleBuffer& sampleBuffer) { (void)sampleBuffer; }
};

/// A source whose frames are a camera's pictures: Y and CbCr are uploaded and become RGB in one pass, which also turns
/// and mirrors them. One frame is in the making at most; pictures that come meanwhile are dropped.
///
/// Any thread, except where an operation says otherwise. Pictures come on the platform's global queue and are drawn on
/// the video-processing queue. It may be destroyed at any time: a frame that is being drawn is finished first.
class GPUImageVideoCamera : public GPUImageOutput, public CaptureVideoDataOutputDelegate {
 public:
  /// 640 × 480 of the rear camera.
  [[nodiscard]] static std::shared_ptr<GPUImageVideoCamera> create();
  /// The last camera at `cameraPosition`, set up and not yet running. `sessionPreset`: as for
  /// CaptureSession::setSessionPreset. Null when there is no such camera, or it cannot be used for pictures, which is
  /// logged. Waits for the video-processing queue.
  [[nodiscard]] static std::shared_ptr<GPUImageVideoCamera> create(
      std::string_view sessionPreset, CaptureDevicePosition cameraPosition,
      std::shared_ptr<const Platform> platform = defaultPlatform());
  /// Stops, and releases what the shared context keeps for reuse.
  ~GPUImageVideoCamera() override;

  void startCameraCapture() { captureSession_->startRunning(); }
  void stopCameraCapture() { captureSession_->stopRunning(); }
  [[nodiscard]] bool isRunning() const { return captureSession_->isRunning(); }
  /// The camera runs on meanwhile; its pictures are thrown away.
  void pauseCameraCapture() { capturePaused_ = true; }
  void resumeCameraCapture() { capturePaused_ = false; }

  /// Changes to the camera at the other position, front or rear. Stays with the present one, and says so, when there is
  /// none.
  void rotateCamera();
  [[nodiscard]] CaptureDevicePosition cameraPosition() const { return inputCamera()->position(); }
  [[nodiscard]] bool isFrontFacingCameraPresent() const;
  [[nodiscard]] bool isBackFacingCameraPresent() const;

  [[nodiscard]] std::string captureSessionPreset() const;
  void setCaptureSessionPreset(std::string_view preset);
  /// Pictures per second; 0 or less for the camera's own rate.
  [[nodiscard]] std::int32_t frameRate() const { return frameRate_; }
  void setFrameRate(std::int32_t frameRate);

  /// 1 portrait, 2 upside down, 3 landscape right, 4 landscape left; anything else leaves pictures as the camera gives
  /// them. This and the next two wait for the video-processing queue.
  [[nodiscard]] std::int64_t outputImageOrientation() const { return outputImageOrientation_; }
  void setOutputImageOrientation(std::int64_t orientation);
  [[nodiscard]] bool horizontallyMirrorFrontFacingCamera() const { return mirrorsFront_; }
  void setHorizontallyMirrorFrontFacingCamera(bool mirror);
  [[nodiscard]] bool horizontallyMirrorRearFacingCamera() const { return mirrorsRear_; }
  void setHorizontallyMirrorRearFacingCamera(bool mirror);

  /// Held weakly.
  void setDelegate(std::weak_ptr<GPUImageVideoCameraDelegate> delegate);
  [[nodiscard]] std::shared_ptr<CaptureSession> captureSession() const { return captureSession_; }
  [[nodiscard]] std::shared_ptr<CaptureDevice> inputCamera() const;

  /// While set, each frame is timed and logged.
  [[nodiscard]] bool runBenchmark() const { return runBenchmark_; }
  void setRunBenchmark(bool run) { runBenchmark_ = run; }
  /// Milliseconds, over the frames from the sixth on; 0 before.
  [[nodiscard]] double averageFrameDurationDuringCapture() const;
  void resetBenchmarkAverage();

  /// From the capture session. Returns at once.
  void captureOutputDidOutputSampleBuffer(CaptureSession* session, const CaptureSampleBuffer& sampleBuffer) override;
  /// Video-processing queue: makes a frame of the picture and hands it to the targets; nothing while paused.
  void processVideoSampleBuffer(const CaptureSampleBuffer& sampleBuffer);

 private:
  GPUImageVideoCamera(std::shared_ptr<const Platform> platform, std::shared_ptr<CaptureSession> session,
                      std::shared_ptr<CaptureDevice> device);
  [[nodiscard]] bool initWithSessionPreset(std::string_view sessionPreset);
  void makeConversionProgram();
  void removeInputsAndOutputs();
  void updateOrientationSendToTargets();
  void convertYUVToRGBOutput();
  void updateTargetsForVideoCameraUsingCacheTextureAtWidth(std::size_t width, std::size_t height, MediaTime time);
  void countFrame(double seconds);

  const std::shared_ptr<const Platform> platform_;
  const std::shared_ptr<CaptureSession> captureSession_;

  // Constant once made.
  bool isFullYUVRange_ = false;
  std::shared_ptr<GLProgram> yuvConversionProgram_;
  std::uint32_t yuvConversionPositionAttribute_ = GLProgram::kNotFound;
  std::uint32_t yuvConversionTextureCoordinateAttribute_ = GLProgram::kNotFound;
  std::int32_t yuvConversionLuminanceTextureUniform_ = -1;
  std::int32_t yuvConversionChrominanceTextureUniform_ = -1;
  std::int32_t yuvConversionMatrixUniform_ = -1;

  // On the video-processing queue.
  std::uint32_t luminanceTexture_ = 0;
  std::uint32_t chrominanceTexture_ = 0;
  std::size_t imageBufferWidth_ = 0;
  std::size_t imageBufferHeight_ = 0;
  /// The turn that the conversion makes; the targets have none left to make.
  GPUImageInputTurn internalRotation_ = kGPUImageTurnNone;
  static constexpr GPUImageInputTurn outputRotation_ = kGPUImageTurnNone;
  const ColorConversion* preferredConversion_;

  /// Taken while a frame is in the making.
  CountingSemaphore frameRenderingSemaphore_{1};
  std::atomic<bool> capturePaused_ = false;
  std::atomic<bool> mirrorsFront_ = false;
  std::atomic<bool> mirrorsRear_ = false;
  std::atomic<std::int64_t> outputImageOrientation_ = 0;
  std::atomic<std::int32_t> frameRate_ = 0;
  std::atomic<bool> runBenchmark_ = false;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<CaptureDevice> inputCamera_;
  std::string captureSessionPreset_;
  std::weak_ptr<GPUImageVideoCameraDelegate> delegate_;
  std::uint64_t numberOfFramesCaptured_ = 0;
  double totalFrameTimeDuringCapture_ = 0;
};

}  // namespace zellive
