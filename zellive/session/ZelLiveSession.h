#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "zellive/audio/ZelLiveAudioPool.h"
#include "zellive/capture/CaptureDelegates.h"
#include "zellive/capture/ZelLiveAudioCapture.h"
#include "zellive/capture/ZelLivePixelBufferFitSizeFilter.h"
#include "zellive/capture/ZelLiveTool.h"
#include "zellive/codec/ZelHardwareAudioEncoder.h"
#include "zellive/codec/ZelHardwareVideoEncoder.h"
#include "zellive/platform/Exception.h"
#include "zellive/platform/PixelBuffer.h"
#include "zellive/platform/Platform.h"
#include "zellive/session/FrameOrder.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveCaptureType.h"
#include "zellive/session/ZelLiveDebug.h"
#include "zellive/session/ZelLiveSessionDelegate.h"
#include "zellive/session/ZelLiveStreamInfo.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"
#include "zellive/transport/ZelStreamRtmpSocket.h"

namespace zellive {

class View;

/// Publishes one live stream: the one object that an application deals with.
///
/// Make one for a capture type and two configurations, give it a delegate, call startLive with a push URL, push audio
/// and pictures (or let capture deliver them), and end it with stopLive or suspendLive. A stopped session is spent: a
/// new run needs a new session.
///
/// Created → startLive → connecting (1) → connected (2), uploading ⇄ reconnecting (5) → stopLive → spent.
///
/// Ownership: the application owns the session; the session owns every stage and holds its delegate weakly.
/// Threads: every operation may be called on any thread, also from inside a delegate method; none blocks for longer
/// than its own work. Destroying the session at any moment is safe and ends the stream. Errors: run-time failures are
/// logged and reported to the delegate; only the factories throw, and only ZelException.
class ZelLiveSession : public std::enable_shared_from_this<ZelLiveSession>,
                       public ZelStreamSocketDelegate,
                       public ZelVideoEncodingDelegate,
                       public ZelAudioEncodingDelegate,
                       public ZelLiveAudioPoolDelegate,
                       public ZelLivePixelBufferFitSizeDelegate,
                       public ZelLiveAudioCaptureDelegate,
                       public ZelLiveVideoCaptureDelegate,
                       public ZelLiveReplayCaptureDelegate {
 public:
  using AudioConfiguration = std::shared_ptr<ZelLiveAudioConfiguration>;
  using VideoConfiguration = std::shared_ptr<ZelLiveVideoConfiguration>;

  /// Default audio, video quality 1. `captureType`: bits of ZelLiveCaptureTypeMask.
  [[nodiscard]] static std::shared_ptr<ZelLiveSession> create(std::int64_t captureType);
  /// Default audio, video of the given ZelLiveVideoQuality.
  [[nodiscard]] static std::shared_ptr<ZelLiveSession> create(std::int64_t captureType, std::uint64_t videoQuality);
  /// Microphone and camera.
  [[nodiscard]] static std::shared_ptr<ZelLiveSession> create(AudioConfiguration audioConfiguration,
                                                              VideoConfiguration videoConfiguration);
  /// Throws ZelException "ZelLiveSession init error." when a configuration that the type needs is null. The session
  /// keeps the configurations; do not change them once it has started.
  [[nodiscard]] static std::shared_ptr<ZelLiveSession> create(
      AudioConfiguration audioConfiguration, VideoConfiguration videoConfiguration, std::int64_t captureType,
      std::shared_ptr<const Platform> platform = defaultPlatform());

  ~ZelLiveSession() override;

  // ---- Control

  /// Opens the stream. Null, a second call and a spent session do nothing. A configuration that `streamInfo` lacks is
  /// filled in from the session's.
  void startLive(std::shared_ptr<ZelLiveStreamInfo> streamInfo);
  /// Ends the stream, reporting it to the live-room service as suspended. The session is spent.
  void suspendLive();
  /// Ends the stream, reporting its end to the live-room service. The session is spent.
  void stopLive();
  /// Waits, at most `limit`, until the connection of a stream that was stopped is closed: for a program that is about
  /// to exit. True when nothing is left running. Not from a delegate method.
  bool waitUntilStopped(std::chrono::milliseconds limit);

  // ---- Media

  /// Interleaved signed 16-bit little-endian PCM at inputAudioASBD()'s rate, one channel; any number of bytes. Advances
  /// the stream's clock by its duration and is encoded before this returns. Ignored unless the type has
  /// ZelLiveInputAudio, the stream is up and audio is not turned off. One thread at a time for sensible sound.
  void pushAudio(std::span<const std::uint8_t> data);
  /// A picture of any size, stamped with the stream's clock: push the audio that goes with a picture first. One of
  /// another shape than the stream's gets black bars. Copied where it must be (a planar picture from a pool of ours is
  /// shared, not copied: do not change it afterwards). Ignored unless the type has ZelLiveInputVideo and the stream is
  /// up. Pictures above the configured frame rate are thinned by the whole ratio inputVideoFrameRate / videoFrameRate.
  void pushVideo(std::shared_ptr<PixelBuffer> pixelBuffer);
  /// Replaces pushed audio by silence, and back; also before the stream is up.
  void turnOffAudio(bool off);
  /// Sends the last key frame once a second, and stops doing so. Pictures that are pushed meanwhile are still sent:
  /// stop pushing them.
  void turnOffVideo(bool off);
  /// Milliseconds on the stream's clock, counted from its base.
  [[nodiscard]] std::uint64_t uploadTimestamp(std::uint64_t timestamp) const;

  // ---- Properties

  void setDelegate(std::weak_ptr<ZelLiveSessionDelegate> delegate);
  /// Capture on or off.
  [[nodiscard]] bool running() const { return running_; }
  void setRunning(bool running);
  /// Shows what the camera gives in all of `view`, behind what else is in it; null shows it nowhere. Without effect
  /// unless the type has ZelLiveCaptureVideo, as the next.
  [[nodiscard]] std::shared_ptr<View> preView();
  void setPreView(const std::shared_ptr<View>& view);
  /// Front (2) or back (1) camera; 0 without one.
  [[nodiscard]] std::int64_t captureDevicePosition();
  void setCaptureDevicePosition(std::int64_t position);
  /// What more there is to set on the camera: torch, zoom, mirroring, frame rate, watermark. Made at the first call;
  /// null unless the type has ZelLiveCaptureVideo, and after the end.
  [[nodiscard]] std::shared_ptr<ZelLiveVideoCapture> videoCapture();
  /// 1 to 3, the noise suppressor's strength; other values are ignored. 0 until set.
  [[nodiscard]] std::int64_t denoiseLevel() const;
  void setDenoiseLevel(std::int64_t level);
  /// Whether the video bit rate follows the network. Default false.
  [[nodiscard]] bool adaptiveBitRate() const { return adaptiveBitRate_; }
  void setAdaptiveBitRate(bool adaptive) { adaptiveBitRate_ = adaptive; }
  /// Whether the delegate gets statistics. Default false.
  [[nodiscard]] bool showDebugInfo() const { return showDebugInfo_; }
  void setShowDebugInfo(bool show) { showDebugInfo_ = show; }
  /// Seconds before each reconnection; 0 means 5. Taken when the stream starts.
  [[nodiscard]] std::uint64_t reconnectInterval() const { return reconnectInterval_; }
  void setReconnectInterval(std::uint64_t seconds) { reconnectInterval_ = seconds; }
  /// Attempts after which the delegate hears of an error; 0 means 3. Taken when the stream starts.
  [[nodiscard]] std::uint64_t reconnectCount() const { return reconnectCount_; }
  void setReconnectCount(std::uint64_t count) { reconnectCount_ = count; }
  /// The last state; 0 before the first.
  [[nodiscard]] std::uint64_t state() const { return state_; }
  [[nodiscard]] std::int64_t captureType() const { return captureType_; }
  /// Format of pushed audio.
  [[nodiscard]] AudioStreamBasicDescription inputAudioASBD() const;
  void setInputAudioASBD(const AudioStreamBasicDescription& description);
  /// Frames per second that the application pushes; 30 to begin with.
  [[nodiscard]] std::uint64_t inputVideoFrameRate() const { return inputVideoFrameRate_; }
  void setInputVideoFrameRate(std::uint64_t rate) { inputVideoFrameRate_ = rate; }
  /// Null before startLive and after the end.
  [[nodiscard]] std::shared_ptr<ZelLiveStreamInfo> streamInfo() const;
  /// The last statistics, if there are any.
  [[nodiscard]] std::optional<ZelLiveDebug> debugInfo() const;
  /// Which encoder to use; taken when the stream starts.
  [[nodiscard]] VideoEncoderOptions videoEncoderOptions() const;
  void setVideoEncoderOptions(VideoEncoderOptions options);
  /// Bits per second that the video encoder is set to at present; 0 while there is none.
  [[nodiscard]] std::uint64_t videoBitRate() const;
  /// Pictures of this stream that were lost because the renderer or the encoder was too slow; 0 once it has ended.
  [[nodiscard]] std::uint64_t droppedPictures() const;
  /// Calls `handler` with user information "new" after each change of "running", "preView" (whether there is one) or
  /// "captureDevicePosition", on the thread that makes the change.
  [[nodiscard]] NotificationCenter::Observation observe(std::string_view keyPath, NotificationCenter::Handler handler);

  // ---- Called by the stages

  void socketStatus(ZelStreamRtmpSocket& socket, std::uint64_t status) override;
  void socketDidErrorCode(ZelStreamRtmpSocket& socket, std::uint64_t code) override;
  void socketDebugInfo(ZelStreamRtmpSocket& socket, const ZelLiveDebug& info) override;
  void socketBufferStatus(ZelStreamRtmpSocket& socket, ZelStreamingBufferState status) override;
  void socketBufferStatusBufferCount(ZelStreamRtmpSocket& socket, std::uint64_t count) override;
  void socketRequestNewUrl(ZelStreamRtmpSocket& socket) override;
  void videoEncoderVideoFrame(ZelHardwareVideoEncoder& encoder,
                              std::shared_ptr<const ZelLiveVideoFrame> frame) override;
  void videoEncoderDidFinishPicture(ZelHardwareVideoEncoder& encoder) override;
  void audioEncoderAudioFrame(ZelAudioEncoding& encoder, std::shared_ptr<const ZelLiveAudioFrame> frame) override;
  void processedAudioData(ZelLiveAudioPool& pool, std::span<const std::uint8_t> audioData, double timeStamp) override;
  void filterPixelBuffer(ZelLivePixelBufferFitSizeFilter& filter, std::shared_ptr<PixelBuffer> pixelBuffer,
                         double timeStamp) override;
  void filterDidFinishPicture(ZelLivePixelBufferFitSizeFilter& filter) override;
  void audioCaptureOutputAudioData(ZelLiveAudioCapture* output, std::span<const std::uint8_t> audioData) override;
  void videoCaptureOutputPixelBuffer(ZelLiveVideoCapture* output, std::shared_ptr<PixelBuffer> pixelBuffer) override;
  void replayCaptureOutputAudioData(ZelLiveReplayCapture* output, std::span<const std::uint8_t> audioData) override;
  void replayCaptureOutputPixelBuffer(ZelLiveReplayCapture* output, std::shared_ptr<PixelBuffer> pixelBuffer) override;
  void replayCaptureOutputError(ZelLiveReplayCapture* output, const ZelLiveCaptureError& error) override;

 protected:
  ZelLiveSession(AudioConfiguration audioConfiguration, VideoConfiguration videoConfiguration, std::int64_t captureType,
                 std::shared_ptr<const Platform> platform);
  /// What every factory does after construction: observing needs a shared object.
  void observeApplication();
  /// Makes the publisher; a test may put a connection of its own under it.
  virtual std::shared_ptr<ZelStreamRtmpSocket> makeSocket(std::shared_ptr<ZelLiveStreamInfo> streamInfo);
  /// Hands an encoded frame to the publisher.
  virtual void pushSendBuffer(std::shared_ptr<const ZelFrame> frame);

 private:
  using Frame = std::shared_ptr<const ZelFrame>;

  /// The stages that exist, and what they are made from. Guarded by stagesLock_.
  struct Stages {
    std::shared_ptr<ZelStreamRtmpSocket> socket;
    std::shared_ptr<ZelLiveStreamInfo> streamInfo;
    std::shared_ptr<ZelHardwareAudioEncoder> audioEncoder;
    std::shared_ptr<ZelHardwareVideoEncoder> videoEncoder;
    AudioConfiguration audioConfiguration;
    VideoConfiguration videoConfiguration;
    std::optional<ZelLiveDebug> debugInfo;
    std::shared_ptr<ZelLiveVideoCapture> videoCapture;
    std::shared_ptr<ZelLiveAudioCapture> audioCapture;
    std::weak_ptr<ZelLiveSessionDelegate> delegate;
    std::shared_ptr<ZelLiveAudioPool> audioPool;
    std::shared_ptr<ZelLivePixelBufferFitSizeFilter> pbFilter;
  };

  // Lifecycle (ZelLiveSession.cpp)
  bool endLive(const char* how);
  void clean();
  template <typename Stage, typename Make>
  std::shared_ptr<Stage> stage(std::shared_ptr<Stage> Stages::*member, Make make);
  std::shared_ptr<ZelStreamRtmpSocket> socket() const;
  std::shared_ptr<ZelLiveAudioCapture> audioCapture();
  std::shared_ptr<ZelHardwareAudioEncoder> audioEncoder();
  std::shared_ptr<ZelHardwareVideoEncoder> videoEncoder();
  std::shared_ptr<ZelHardwareVideoEncoder> existingVideoEncoder() const;
  std::shared_ptr<ZelLiveAudioPool> audioPool();
  std::shared_ptr<ZelLivePixelBufferFitSizeFilter> pbFilter();
  std::shared_ptr<ZelLivePixelBufferFitSizeFilter> existingFilter() const;
  AudioConfiguration audioConfiguration() const;
  VideoConfiguration videoConfiguration() const;
  void setState(std::uint64_t state);
  void notifyState(std::uint64_t state);
  template <typename Call>
  void onMainQueue(Call call);
  void willEnterBackground();
  void willEnterForeground();
  void willResignActive();
  void becomeActive();
  bool hasType(std::int64_t bits) const { return (captureType_ & bits) != 0; }

  // Media (ZelLiveSessionMedia.cpp, ZelLiveSessionFillers.cpp)
  void beginUploading();
  bool AVAlignnment() const;
  void receiveAudio(std::span<const std::uint8_t> data, double sampleRate);
  double audioClock() const;
  double audioRate() const;
  static bool isSampleRate(double rate);
  void renderCaptured(const std::shared_ptr<PixelBuffer>& pixelBuffer);
  void render(const std::shared_ptr<PixelBuffer>& pixelBuffer, double clock, bool copies);
  void logPicture(std::int64_t videoSeqId, double clock, double frameRate) const;
  void videoFrameWithoutAlignment();
  void handOff(Frame frame);
  void handOffInOrder();
  void audioCheck();
  void videoCheck();
  std::shared_ptr<Queue> mediaQueue();
  void startFiller(void (ZelLiveSession::*filler)(std::uint64_t), std::atomic<std::uint64_t>& generation);
  void fillAgain(std::chrono::duration<double, std::milli> delay, void (ZelLiveSession::*filler)(std::uint64_t),
                 std::uint64_t generation);
  void fillAudioFrameInTurnOffAudio(std::uint64_t generation);
  void fillVideoFrameInTurnOffVideo(std::uint64_t generation);
  void fillVideoInBackgroud(std::uint64_t generation);
  void sendFillerPicture();

  // Live room (ZelLiveSessionRoom.cpp)
  void refreshPushUrl();
  void liveUpdateStatus(std::uint64_t status);
  void liveMonitor();
  void stopLiveWithRoomId();

  const std::shared_ptr<const Platform> platform_;
  const std::int64_t captureType_;

  mutable std::mutex stagesLock_;
  Stages stages_;
  bool spent_ = false;
  VideoEncoderOptions videoEncoderOptions_;
  AudioStreamBasicDescription inputAudioASBD_;
  std::shared_ptr<Queue> a_v_process_queue_;
  std::vector<std::shared_ptr<DelayedWork>> checks_;
  /// Kept until the session goes, for waitUntilStopped.
  std::shared_ptr<ZelStreamRtmpSocket> stoppedSocket_;
  Frame lastVideoFrame_;
  Frame lastAudioFrame_;

  /// Keeps pushed audio and the silent filler apart: the pool and the encoder take one thread at a time.
  std::mutex audioLock_;
  /// Guards the clock fields.
  mutable std::mutex lock_;
  double lastAudioTimestamp_ = 0;
  double lastVideoTimestamp_ = 0;
  std::uint64_t relativeTimeStamp_ = 0;
  float audioSampleMS_ = 0;
  std::uint64_t fr_ = 0;

  // On the media queue only.
  std::chrono::nanoseconds silenceDue_{0};
  std::uint64_t silenceGeneration_ = 0;

  ZelLiveTool tool_;
  FrameOrder order_;
  /// An SEI came before alignment, its slice has yet to come. The encoder's callbacks only, which never overlap.
  bool pictureBegun_ = false;

  std::atomic<std::int64_t> audioSeqId_{0};
  std::atomic<std::int64_t> videoSeqId_{0};
  std::atomic<std::int64_t> fillVideoFrame_{0};
  std::atomic<std::uint64_t> recoderNoAudioFrame_{0};
  std::atomic<std::uint64_t> recoderNoVideoFrame_{0};
  std::atomic<bool> hasCaptureAudio_{false};
  std::atomic<bool> hasKeyFrameVideo_{false};
  /// Becomes true under stagesLock_, and not once spent_ is.
  std::atomic<bool> uploading_{false};
  std::atomic<bool> makingVideoEncoder_{false};
  std::atomic<bool> didNotiLiveStatusToServer_{false};
  std::atomic<bool> isBackGround_{false};
  std::atomic<bool> inputAudioOff_{false};
  std::atomic<bool> inputVideoOff_{false};
  std::atomic<bool> running_{false};
  std::atomic<bool> adaptiveBitRate_{false};
  std::atomic<bool> showDebugInfo_{false};
  std::atomic<std::uint64_t> reconnectInterval_{0};
  std::atomic<std::uint64_t> reconnectCount_{0};
  std::atomic<std::uint64_t> state_{0};
  std::atomic<std::uint64_t> inputVideoFrameRate_{0};
  /// A filler chain ends when its generation is over, so that quick off-on-off leaves one chain, not two.
  std::atomic<std::uint64_t> audioFillerGeneration_{0};
  std::atomic<std::uint64_t> videoFillerGeneration_{0};
  std::atomic<std::uint64_t> backgroundFillerGeneration_{0};

  NotificationCenter keyValueObservers_;
  std::vector<NotificationCenter::Observation> observations_;
};

}  // namespace zellive
