#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "zellive/platform/Platform.h"
#include "zellive/session/ZelFrame.h"
#include "zellive/transport/ZelFrameList.h"

namespace zellive {

class ZelLiveAudioConfiguration;
class ZelLiveVideoConfiguration;
class ZelStreamingBuffer;

/// Which way the queue's length went over the last judged samples.
enum ZelStreamingBufferState : std::int64_t {
  ZelStreamingBufferStateUnknown = 0,   ///< Neither way throughout.
  ZelStreamingBufferStateIncrease = 1,  ///< Every sample was longer than the one before.
  ZelStreamingBufferStateDecrease = 2,  ///< No sample was longer than the one before.
};

/// Told about the queue's trend, on the main queue.
class ZelStreamingBufferDelegate {
 public:
  virtual ~ZelStreamingBufferDelegate() = default;
  /// `state` is Increase or Decrease.
  virtual void streamingBufferState(ZelStreamingBuffer& /*buffer*/, ZelStreamingBufferState /*state*/) {}
  /// `count`: frames queued.
  virtual void streamingBufferCount(ZelStreamingBuffer& /*buffer*/, std::uint64_t /*count*/) {}
};

/// The send queue between the encoders and the publisher.
///
/// A frame first enters a small sorting stage, which undoes small inversions between audio and video, and moves on to
/// the queue proper when five younger frames have arrived. A full queue drops the predicted pictures of its oldest
/// group first, a key frame only when no predicted picture is left, so that nothing is sent whose reference was
/// dropped. Once a second (from the first frame on, for as long as the buffer exists) the queue's length is sampled,
/// and every five samples its trend is judged.
///
/// All operations are thread-safe and none blocks; delegate methods arrive on the main queue.
class ZelStreamingBuffer : public std::enable_shared_from_this<ZelStreamingBuffer> {
 public:
  using Frame = ZelFrameList::Frame;
  /// A frame that this many younger ones have overtaken on the way here still leaves in order; one more, and it does
  /// not.
  static constexpr std::size_t sortCount = 5;
  using AudioConfiguration = std::shared_ptr<ZelLiveAudioConfiguration>;
  using VideoConfiguration = std::shared_ptr<ZelLiveVideoConfiguration>;

  /// The queue's limit follows from the machine's memory and the configured rates, read once, here. A null
  /// configuration counts as rates of 0.
  [[nodiscard]] static std::shared_ptr<ZelStreamingBuffer> create(
      AudioConfiguration audioConfiguration, VideoConfiguration videoConfiguration,
      std::shared_ptr<const Platform> platform = defaultPlatform());
  ~ZelStreamingBuffer();
  ZelStreamingBuffer(const ZelStreamingBuffer&) = delete;
  ZelStreamingBuffer& operator=(const ZelStreamingBuffer&) = delete;

  void setDelegate(std::weak_ptr<ZelStreamingBufferDelegate> delegate);

  /// Adds a frame; null is ignored.
  void appendObject(Frame frame);
  /// Takes the oldest frame out of the queue; null when it is empty.
  [[nodiscard]] Frame popFirstObject();
  /// Empties the queue. Frames in the sorting stage stay and come out with later ones.
  void removeAllObject();

  /// Frames in the queue, those in the sorting stage not counted.
  [[nodiscard]] std::size_t count() const;

  /// Frames in the queue at which dropping starts.
  [[nodiscard]] std::uint64_t maxCount() const noexcept { return maxCount_; }
  void setMaxCount(std::uint64_t count) noexcept { maxCount_ = count; }
  /// Pictures' frames dropped since the count was last set.
  [[nodiscard]] std::uint64_t lastDropFrames() const noexcept { return lastDropFrames_; }
  void setLastDropFrames(std::uint64_t count) noexcept { lastDropFrames_ = count; }
  /// Reads lastDropFrames() and sets it to 0, with no drop lost between the two.
  [[nodiscard]] std::uint64_t takeLastDropFrames() noexcept { return lastDropFrames_.exchange(0); }

 private:
  ZelStreamingBuffer(AudioConfiguration audioConfiguration, VideoConfiguration videoConfiguration,
                     std::shared_ptr<const Platform> platform);

  [[nodiscard]] std::uint64_t invokeSendBufferMaxCountByDeviceMemory() const;
  void receiveMemoryWarning();
  void removeExpireFrame();
  [[nodiscard]] std::vector<std::size_t> expirePFrames() const;
  [[nodiscard]] std::vector<std::size_t> expireIFrames() const;
  bool drop(const std::vector<std::size_t>& indices, const char* message);
  [[nodiscard]] ZelStreamingBufferState currentBufferState() const;
  void tick();
  void judge();
  void tellCount();
  [[nodiscard]] std::shared_ptr<ZelStreamingBufferDelegate> delegate() const;

  const AudioConfiguration audioConfiguration_;
  const VideoConfiguration videoConfiguration_;
  const std::shared_ptr<const Platform> platform_;
  const std::int64_t callBackInterval_ = 5;  // Seconds.
  const std::int64_t updateInterval_ = 1;    // Seconds.
  std::atomic<std::uint64_t> maxCount_;
  std::atomic<std::uint64_t> lastDropFrames_ = 0;
  std::atomic<bool> startTimer_ = false;
  NotificationCenter::Observation memoryWarning_;

  mutable std::mutex lock_;
  ZelFrameList sortList_;
  ZelFrameList list_;
  std::weak_ptr<ZelStreamingBufferDelegate> delegate_;

  // Of tick() alone, which never runs twice at once.
  std::vector<std::size_t> thresholdList_;
  std::int64_t currentInterval_ = 0;
  std::int32_t bufferAccumulateTime_ = 0;  // Seconds.
};

}  // namespace zellive
