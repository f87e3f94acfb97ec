#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>

#include "zellive/platform/Platform.h"
#include "zellive/session/ZelFrame.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive {

class ZelHardwareVideoEncoder;

/// Receives what the video encoder makes.
class ZelVideoEncodingDelegate {
 public:
  virtual ~ZelVideoEncodingDelegate() = default;
  /// One NAL unit, in stream order, on the thread on which the platform's encoder gives it: the encoder's queue here.
  virtual void videoEncoderVideoFrame(ZelHardwareVideoEncoder& /*encoder*/,
                                      std::shared_ptr<const ZelLiveVideoFrame> /*frame*/) {}
  /// All that comes of the oldest picture has been given. On the encoder's queue.
  virtual void videoEncoderDidFinishPicture(ZelHardwareVideoEncoder& /*encoder*/) {}
};

/// Turns pictures into H.264 NAL units through the platform's compression session.
///
/// Key frames come at a fixed count of pictures, after trouble and where they are asked for. The first key frame and
/// those after trouble or on request begin with an SEI NAL unit, so that a receiver which spends the first unit on the
/// parameter sets still gets the picture. The parameter sets are captured once and stay, also when an error makes a new
/// session necessary. Every operation may be called on any thread. No failure reaches the delegate: each is logged, and
/// costs at most the picture concerned.
class ZelHardwareVideoEncoder : public std::enable_shared_from_this<ZelHardwareVideoEncoder> {
 public:
  /// Null without a configuration. Makes the compression session, which on first use in a process takes up to a second;
  /// when that fails, each picture tries again.
  [[nodiscard]] static std::shared_ptr<ZelHardwareVideoEncoder> create(
      std::shared_ptr<ZelLiveVideoConfiguration> configuration,
      std::shared_ptr<const Platform> platform = defaultPlatform(), VideoEncoderOptions options = {});
  ~ZelHardwareVideoEncoder();
  ZelHardwareVideoEncoder(const ZelHardwareVideoEncoder&) = delete;
  ZelHardwareVideoEncoder& operator=(const ZelHardwareVideoEncoder&) = delete;

  /// Queues a picture and returns; `timeStamp` in milliseconds goes into its frames. Ignored: null, everything in the
  /// background, a picture that is not shareable, and what comes while a quarter of a second of pictures is waiting.
  void encodeVideoData(std::shared_ptr<PixelBuffer> pixelBuffer, std::uint64_t timeStamp);

  /// The time stamp of the oldest picture that was taken and has not come out yet.
  [[nodiscard]] std::optional<std::uint64_t> oldestPicture() const;
  /// Pictures ignored because too many were waiting.
  [[nodiscard]] std::uint64_t droppedPictures() const noexcept { return dropped_; }

  /// Bits per second, for the pictures that follow; ignored in the background.
  void setVideoBitRate(std::int64_t bitRate);
  [[nodiscard]] std::uint64_t videoBitRate() const noexcept { return currentVideoBitRate_; }

  /// Counts a picture that the caller fills in some other way, so that times and key frames stay in step.
  void fillVideoFrame() noexcept { ++frameCount_; }
  /// Makes the next picture a key frame with an SEI NAL unit ahead.
  void requestKeyFrame() noexcept { needKeyFrame_ = true; }
  /// Has pending pictures delivered, behind those that are queued.
  void stopEncoder();

  void setDelegate(std::weak_ptr<ZelVideoEncodingDelegate> delegate);
  void willEnterBackground() noexcept { isBackGround_ = true; }
  /// The next picture becomes a key frame.
  void willEnterForeground() noexcept;

 private:
  ZelHardwareVideoEncoder(std::shared_ptr<ZelLiveVideoConfiguration> configuration,
                          std::shared_ptr<const Platform> platform, VideoEncoderOptions options);

  void createCompressionSession();
  void invalidateCompressionSession();
  [[nodiscard]] std::shared_ptr<VideoCompressionSession> compressionSession() const;
  [[nodiscard]] std::shared_ptr<ZelVideoEncodingDelegate> delegate() const;
  void encode(const std::shared_ptr<PixelBuffer>& pixelBuffer, std::uint64_t timeStamp);
  void finishPicture();
  [[nodiscard]] VideoFrameProperties nextFrameProperties();
  void videoCompresssionOutputCallBack(std::uint64_t reference, int status, const VideoSample* sample);
  void captureParameterSets(const VideoSample& sample, ZelLiveVideoFrame& frame);
  void deliverNalUnits(const Data& data, const ZelLiveVideoFrame& pattern);

  const std::shared_ptr<ZelLiveVideoConfiguration> configuration_;
  const std::shared_ptr<const Platform> platform_;
  const VideoEncoderOptions options_;
  const std::int64_t mostWaiting_;

  std::atomic<std::int64_t> frameCount_ = 0;
  std::atomic<bool> needKeyFrame_ = false;
  std::atomic<bool> isBackGround_ = false;
  std::atomic<std::uint64_t> currentVideoBitRate_ = 0;
  std::atomic<std::int64_t> waiting_ = 0;
  std::atomic<std::uint64_t> dropped_ = 0;
  bool hasEncoded_ = false;  // On the encode queue only.

  mutable std::mutex mutex_;
  std::shared_ptr<VideoCompressionSession> compressionSession_;  // guarded by mutex_; driven on the encode queue only
  std::weak_ptr<ZelVideoEncodingDelegate> h264Delegate_;         // guarded by mutex_
  std::queue<std::uint64_t> inFlight_;                           // guarded by mutex_; time stamps, oldest first
  Data sps_;                                                     // guarded by mutex_
  Data pps_;                                                     // guarded by mutex_

  // Last, so that it goes first: what it still runs must find the rest alive.
  std::shared_ptr<Queue> encodeQueue_;
};

}  // namespace zellive
