#include "zellive/transport/ZelStreamingBuffer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive {
namespace {

constexpr std::uint64_t kMinMaxCount = 750;
constexpr std::int32_t kLongAccumulation = 120;  // Seconds.

int frameDataCompare(const ZelFrame& a, const ZelFrame& b) {
  return a.timestamp == b.timestamp ? 0 : a.timestamp > b.timestamp ? 1 : -1;
}

/// Kilobytes that the queue may take on a machine with `memory` gigabytes.
std::int64_t askedMemory(double memory) {
  if (memory < 1.0) {
    return 10240;
  }
  if (memory < 2.0) {
    return 20480;
  }
  if (memory < 3.0) {
    return 40960;
  }
  return memory < 4.0 ? 61440 : 102400;
}

const ZelLiveVideoFrame* asVideo(const ZelFrameList::Frame& frame) {
  return frame->kind() == ZelFrameKind::Video ? static_cast<const ZelLiveVideoFrame*>(frame.get()) : nullptr;
}

}  // namespace

std::shared_ptr<ZelStreamingBuffer> ZelStreamingBuffer::create(AudioConfiguration audioConfiguration,
                                                               VideoConfiguration videoConfiguration,
                                                               std::shared_ptr<const Platform> platform) {
  std::shared_ptr<ZelStreamingBuffer> buffer(
      new ZelStreamingBuffer(std::move(audioConfiguration), std::move(videoConfiguration), std::move(platform)));
  buffer->memoryWarning_ = buffer->platform_->notifications->addObserver(
      notification::DidReceiveMemoryWarning, [weak = std::weak_ptr(buffer)](const UserInfo&) {
        if (const auto self = weak.lock()) {
          self->receiveMemoryWarning();
        }
      });
  return buffer;
}

ZelStreamingBuffer::ZelStreamingBuffer(AudioConfiguration audioConfiguration, VideoConfiguration videoConfiguration,
                                       std::shared_ptr<const Platform> platform)
    : audioConfiguration_(std::move(audioConfiguration)),
      videoConfiguration_(std::move(videoConfiguration)),
      platform_(std::move(platform)),
      maxCount_(invokeSendBufferMaxCountByDeviceMemory()) {}

ZelStreamingBuffer::~ZelStreamingBuffer() {
  ZEL_LOG_INFO("Live: dealloc %s", describeObject("ZelStreamingBuffer", this).c_str());
}

std::uint64_t ZelStreamingBuffer::invokeSendBufferMaxCountByDeviceMemory() const {
  const double memory = std::ldexp(static_cast<double>(platform_->device->physicalMemory()), -30);
  const std::int64_t askMemory = askedMemory(memory);
  double kilobytesPerSecond = 0;
  std::uint64_t framesPerSecond = 0;
  if (audioConfiguration_) {
    const std::uint64_t length = audioConfiguration_->bufferLength();
    kilobytesPerSecond += static_cast<double>(audioConfiguration_->audioBitRate()) / 1000 * 0.125;
    framesPerSecond += 2 * (length == 0 ? 0 : audioConfiguration_->audioSampleRate() / length);
  }
  if (videoConfiguration_) {
    kilobytesPerSecond += static_cast<double>(videoConfiguration_->videoBitRate()) / 1000 * 0.125;
    framesPerSecond += videoConfiguration_->videoFrameRate();
  }
  // With no bit rate at all there is nothing to reckon with, and the floor holds.
  const auto bitCount =
      kilobytesPerSecond > 0 ? static_cast<float>(static_cast<double>(askMemory) / kilobytesPerSecond) : 0.0F;
  const float frames = bitCount * static_cast<float>(framesPerSecond);
  const std::int64_t frameCount = frames < 9.0e18F ? static_cast<std::int64_t>(frames) : 9'000'000'000'000'000'000;
  ZEL_LOG_INFO(
      "Live: invoke send buffer max count: memory: %.1fGB askMemory: %ld bitCount: %f frameCount: %ld \n "
      "audioConfiguration: %s \n videoConfiguration: %s",
      memory, static_cast<long>(askMemory), static_cast<double>(bitCount), static_cast<long>(frameCount),
      audioConfiguration_ ? audioConfiguration_->description().c_str() : "(null)",
      videoConfiguration_ ? videoConfiguration_->description().c_str() : "(null)");
  return std::max(static_cast<std::uint64_t>(frameCount), kMinMaxCount);
}

void ZelStreamingBuffer::setDelegate(std::weak_ptr<ZelStreamingBufferDelegate> delegate) {
  const std::lock_guard lock(lock_);
  delegate_.swap(delegate);
}

std::shared_ptr<ZelStreamingBufferDelegate> ZelStreamingBuffer::delegate() const {
  const std::lock_guard lock(lock_);
  return delegate_.lock();
}

void ZelStreamingBuffer::appendObject(Frame frame) {
  if (!frame) {
    return;
  }
  if (!startTimer_.exchange(true)) {
    tick();
  }
  const std::lock_guard lock(lock_);
  const std::size_t before = sortList_.count();
  sortList_.addObject(std::move(frame));
  if (before < sortCount) {
    return;
  }
  sortList_.sortUsingFunction(frameDataCompare);
  removeExpireFrame();
  list_.addObject(sortList_.popFirstObject());
}

ZelStreamingBuffer::Frame ZelStreamingBuffer::popFirstObject() {
  const std::lock_guard lock(lock_);
  return list_.popFirstObject();
}

void ZelStreamingBuffer::removeAllObject() {
  ZelFrameList removed;  // Its payloads are freed outside the lock.
  const std::lock_guard lock(lock_);
  ZEL_LOG_INFO("Live: StreamingBuffer unSend buffer: %lu", static_cast<unsigned long>(list_.count()));
  std::swap(removed, list_);
}

std::size_t ZelStreamingBuffer::count() const {
  const std::lock_guard lock(lock_);
  return list_.count();
}

bool ZelStreamingBuffer::drop(const std::vector<std::size_t>& indices, const char* message) {
  if (indices.empty()) {
    return false;
  }
  lastDropFrames_ += indices.size();
  list_.removeObjectsAtIndices(indices);
  ZEL_LOG_INFO("%s", message);
  return true;
}

void ZelStreamingBuffer::removeExpireFrame() {
  if (list_.count() < maxCount_) {
    return;
  }
  if (drop(expirePFrames(), "Live: StreamingBuffer drop P Frame") ||
      drop(expireIFrames(), "Live: StreamingBuffer drop I Frame")) {
    return;
  }
  list_ = {};  // Sound alone: it does not count as dropped frames.
}

/// The predicted frames of the oldest group of pictures that has any.
std::vector<std::size_t> ZelStreamingBuffer::expirePFrames() const {
  std::vector<std::size_t> frames;
  for (std::size_t index = 0; index < list_.count(); ++index) {
    const ZelLiveVideoFrame* video = asVideo(list_[index]);
    if (video == nullptr || (video->isKeyFrame && frames.empty())) {
      continue;
    }
    if (video->isKeyFrame) {
      break;
    }
    frames.push_back(index);
  }
  return frames;
}

/// The frames of the oldest key picture. A picture at time 0 does not end the walk: 0 counts as no time yet.
std::vector<std::size_t> ZelStreamingBuffer::expireIFrames() const {
  std::vector<std::size_t> frames;
  std::uint64_t timestamp = 0;
  for (std::size_t index = 0; index < list_.count(); ++index) {
    const ZelLiveVideoFrame* video = asVideo(list_[index]);
    if (video == nullptr || !video->isKeyFrame) {
      continue;
    }
    if (timestamp != 0 && video->timestamp != timestamp) {
      break;
    }
    timestamp = video->timestamp;
    frames.push_back(index);
  }
  return frames;
}

void ZelStreamingBuffer::receiveMemoryWarning() {
  ZEL_LOG_INFO("Live: receive memory warning");
  const std::lock_guard lock(lock_);
  drop(expirePFrames(), "Live: StreamingBuffer drop P Frame when memoryWarning");
  drop(expireIFrames(), "Live: StreamingBuffer drop I Frame when memoryWarning");
}

ZelStreamingBufferState ZelStreamingBuffer::currentBufferState() const {
  std::int64_t rises = 0;
  std::int64_t falls = 0;
  std::size_t previous = 0;
  for (const std::size_t sample : thresholdList_) {
    ++(sample > previous ? rises : falls);
    previous = sample;
  }
  if (rises >= callBackInterval_) {
    return ZelStreamingBufferStateIncrease;
  }
  return falls >= callBackInterval_ ? ZelStreamingBufferStateDecrease : ZelStreamingBufferStateUnknown;
}

void ZelStreamingBuffer::tick() {
  currentInterval_ += updateInterval_;
  thresholdList_.push_back(count());
  if (currentInterval_ >= callBackInterval_) {
    judge();
  } else if (bufferAccumulateTime_ >= kLongAccumulation) {
    tellCount();
  }
  platform_->queues->mainQueue()->after(std::chrono::seconds(updateInterval_), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->tick();
    }
  });
}

void ZelStreamingBuffer::judge() {
  const ZelStreamingBufferState state = currentBufferState();
  const auto interval = static_cast<std::int32_t>(callBackInterval_);
  if (state != ZelStreamingBufferStateUnknown) {
    bufferAccumulateTime_ += state == ZelStreamingBufferStateIncrease ? interval : -interval;
    bufferAccumulateTime_ = std::max(bufferAccumulateTime_, 0);
    if (const auto target = delegate()) {
      target->streamingBufferState(*this, state);
    }
  }
  tellCount();
  ZEL_LOG_INFO("Live: stream buffer send noti %d", bufferAccumulateTime_);
  platform_->notifications->post(notification::LiveBufferAccumulateTime,
                                 {{"bufferAccumulateTime", bufferAccumulateTime_}});
  currentInterval_ = 0;
  thresholdList_.clear();
}

void ZelStreamingBuffer::tellCount() {
  if (const auto target = delegate()) {
    target->streamingBufferCount(*this, count());
  }
}

}  // namespace zellive
