#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "zellive/capture/CaptureDelegates.h"
#include "zellive/capture/ZelLiveGPUImageEmptyFilter.h"
#include "zellive/gpu/GPUImageAlphaBlendFilter.h"
#include "zellive/gpu/GPUImageUIElement.h"
#include "zellive/gpu/GPUImageVideoCamera.h"
#include "zellive/gpu/GPUImageView.h"
#include "zellive/platform/Platform.h"
#include "zellive/platform/View.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive {

/// The camera's road to the stream: camera → filter → output, whose BGRA pictures of the configuration's
/// captureOutVideoSize() go to the delegate, one a frame, on the video-processing queue. The preview shows the output,
/// or, with a watermark, filter and watermark blended: the stream never carries the watermark.
///
/// Where there is no front camera everything does nothing, and one log line says so; each later call looks again, and
/// starts what it finds while running().
///
/// Any thread; one at a time for a sensible order. Most operations wait for the video-processing queue. It may be
/// destroyed at any time, on any thread, with frames under way; no call of the delegate begins afterwards.
class ZelLiveVideoCapture : public std::enable_shared_from_this<ZelLiveVideoCapture> {
 public:
  /// Sets the front camera up. `configuration` is not null and does not change any more.
  [[nodiscard]] static std::shared_ptr<ZelLiveVideoCapture> create(
      std::shared_ptr<ZelLiveVideoConfiguration> configuration,
      std::shared_ptr<const Platform> platform = defaultPlatform());
  /// Stops, and takes the preview out of its view.
  ~ZelLiveVideoCapture();
  ZelLiveVideoCapture(const ZelLiveVideoCapture&) = delete;
  ZelLiveVideoCapture& operator=(const ZelLiveVideoCapture&) = delete;

  void setDelegate(std::weak_ptr<ZelLiveVideoCaptureDelegate> delegate);

  /// While it runs the screen is asked to stay on.
  [[nodiscard]] bool running() const { return running_; }
  void setRunning(bool running);
  /// Shows the preview in all of `view`, behind what else is in it; null shows it nowhere.
  void setPreView(const std::shared_ptr<View>& view);
  /// Where the preview is; null when nowhere.
  [[nodiscard]] std::shared_ptr<View> preView() const;

  /// 1 rear, 2 front; 0 without a camera. A position where there is no camera leaves the present one, which is logged.
  [[nodiscard]] std::int64_t captureDevicePosition();
  void setCaptureDevicePosition(std::int64_t position);
  /// Pictures per second. Below 1 is ignored. Changing the camera brings the configuration's rate back.
  [[nodiscard]] std::int64_t videoFrameRate();
  void setVideoFrameRate(std::int64_t rate);
  /// Whether the camera's lamp is on. Setting it where there is none, or the camera refuses, is logged.
  [[nodiscard]] bool torch();
  void setTorch(bool on);
  /// Whether pictures of the front camera are mirrored; true at first. Counts from the next start, change of camera or
  /// change of watermark on.
  [[nodiscard]] bool mirror() const { return mirror_; }
  void setMirror(bool mirror) { mirror_ = mirror; }
  /// The last factor that the camera took; 1.0 for the whole picture. Handed on as it is; a refusal changes nothing.
  [[nodiscard]] double zoomScale() const { return zoomScale_; }
  void setZoomScale(double scale);

  /// Not null: the preview shows waterMarkContentView() over the picture, as strong as this view's alpha. What is to be
  /// seen goes into that one, not into this; after changes of it, call uiElementInput()->update(). Null: no watermark.
  [[nodiscard]] std::shared_ptr<View> waterMarkView() const;
  void setWaterMarkView(std::shared_ptr<View> view);

  // ---- Stages

  [[nodiscard]] const std::shared_ptr<ZelLiveVideoConfiguration>& configuration() const { return configuration_; }
  /// Made at the first call, as the next four; null while there is no camera.
  [[nodiscard]] std::shared_ptr<GPUImageVideoCamera> videoCamera();
  /// As large as the main screen until it is in a view.
  [[nodiscard]] std::shared_ptr<GPUImageView> gpuImageView();
  [[nodiscard]] std::shared_ptr<View> waterMarkContentView();
  [[nodiscard]] std::shared_ptr<GPUImageUIElement> uiElementInput();
  [[nodiscard]] std::shared_ptr<GPUImageAlphaBlendFilter> blendFilter();
  /// Replaced by each reloadFilter(); null before the first.
  [[nodiscard]] std::shared_ptr<ZelLiveGPUImageEmptyFilter> filter() const;
  [[nodiscard]] std::shared_ptr<ZelLiveGPUImageEmptyFilter> output() const;

  /// Builds the chain anew, between two frames.
  void reloadFilter();
  /// Tells the camera whether to mirror.
  void reloadMirror();

 private:
  ZelLiveVideoCapture(std::shared_ptr<ZelLiveVideoConfiguration> configuration,
                      std::shared_ptr<const Platform> platform);
  void observeApplication();
  template <typename Stage, typename Make>
  std::shared_ptr<Stage> lazily(std::shared_ptr<Stage> ZelLiveVideoCapture::*stage, Make make);
  template <typename Stage>
  std::shared_ptr<Stage> existing(std::shared_ptr<Stage> ZelLiveVideoCapture::*stage) const;
  std::shared_ptr<GPUImageVideoCamera> makeCamera();
  void followRunning();
  void removeAllTargets();
  void processVideo(const GPUImageOutput& output);
  void willEnterBackground();
  void willEnterForeground();
  void statusBarChanged(const UserInfo& userInfo);

  const std::shared_ptr<ZelLiveVideoConfiguration> configuration_;
  const std::shared_ptr<const Platform> platform_;

  std::atomic<bool> running_ = false;
  std::atomic<bool> mirror_ = true;
  std::atomic<double> zoomScale_ = 1.0;
  std::atomic<bool> saidNoCamera_ = false;
  /// Held while the camera starts or stops, so that of two calls at once the later one counts.
  std::mutex runLock_;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::weak_ptr<ZelLiveVideoCaptureDelegate> delegate_;
  std::shared_ptr<View> waterMarkView_;
  std::shared_ptr<GPUImageVideoCamera> videoCamera_;
  std::shared_ptr<ZelLiveGPUImageEmptyFilter> filter_;
  std::shared_ptr<ZelLiveGPUImageEmptyFilter> output_;
  std::shared_ptr<GPUImageView> gpuImageView_;
  std::shared_ptr<GPUImageAlphaBlendFilter> blendFilter_;
  std::shared_ptr<GPUImageUIElement> uiElementInput_;
  std::shared_ptr<View> waterMarkContentView_;

  std::vector<NotificationCenter::Observation> observations_;
};

}  // namespace zellive
