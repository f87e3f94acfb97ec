#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

#include "zellive/session/ZelFrame.h"
#include "zellive/transport/ZelFrameList.h"
#include "zellive/transport/ZelStreamingBuffer.h"

namespace zellive {

/// Holds sound back while an older picture is still being encoded, so that the send buffer can put both in order.
///
/// The buffer's sorting puts right what up to five younger frames have overtaken. An encoder that is later than that,
/// on a machine under load, would have its picture sent behind younger sound. Any thread.
class SoundGate {
 public:
  using Frame = std::shared_ptr<const ZelFrame>;
  static constexpr std::uint64_t noPicture = std::numeric_limits<std::uint64_t>::max();

  void add(Frame sound) {
    const std::lock_guard lock(mutex_);
    held_.addObject(std::move(sound));
  }

  /// The next unit of sound that may go, given the timestamp of the oldest picture that is yet to come; null when there
  /// is none. An encoder that hangs silences the stream for a second only.
  [[nodiscard]] Frame next(std::uint64_t oldestPicture) {
    const std::lock_guard lock(mutex_);
    if (held_.empty() || (held_.count() <= mostHeld && overtakes(oldestPicture))) {
      return nullptr;
    }
    auto sound = held_.popFirstObject();
    remember(sound->timestamp);
    return sound;
  }

  /// A frame of another kind was handed off.
  void passed(std::uint64_t timestamp) {
    const std::lock_guard lock(mutex_);
    remember(timestamp);
  }

 private:
  static constexpr std::size_t mostHeld = 47;  // Units of 1024 samples.

  [[nodiscard]] bool overtakes(std::uint64_t picture) const {
    return held_[0]->timestamp > picture &&
           std::all_of(recent_.begin(), recent_.end(), [=](std::uint64_t timestamp) { return timestamp > picture; });
  }
  void remember(std::uint64_t timestamp) { recent_[next_++ % recent_.size()] = timestamp; }

  std::mutex mutex_;
  ZelFrameList held_;
  std::array<std::uint64_t, ZelStreamingBuffer::sortCount> recent_{};
  std::size_t next_ = 0;
};

}  // namespace zellive
