#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "zellive/session/ZelFrame.h"
#include "zellive/transport/ZelFrameList.h"
#include "zellive/transport/ZelStreamingBuffer.h"

namespace zellive {

/// Holds encoded frames back while an older one is still being made, so that the send buffer can put them in order.
///
/// The buffer's sorting puts right what up to five younger frames have overtaken. On a machine under load a picture, or
/// a unit of sound, can be later than that, and its message would leave behind younger ones. Any thread.
class FrameOrder {
 public:
  using Frame = std::shared_ptr<const ZelFrame>;
  static constexpr std::uint64_t none = std::numeric_limits<std::uint64_t>::max();

  /// While it lives, something with this time stamp is on its way to a stage that tells of it, or in it.
  class Making {
   public:
    Making(FrameOrder& order, ZelFrameKind kind, double timestamp)
        : order_(order), kind_(kind), timestamp_(static_cast<std::uint64_t>(timestamp)) {
      const std::lock_guard lock(order_.mutex_);
      list().push_back(timestamp_);
    }
    ~Making() {
      const std::lock_guard lock(order_.mutex_);
      list().erase(std::find(list().begin(), list().end(), timestamp_));
    }
    Making(const Making&) = delete;
    Making& operator=(const Making&) = delete;

   private:
    std::vector<std::uint64_t>& list() { return kind_ == ZelFrameKind::Audio ? order_.sounds_ : order_.pictures_; }
    FrameOrder& order_;
    const ZelFrameKind kind_;
    const std::uint64_t timestamp_;
  };

  void add(Frame frame) {
    const std::lock_guard lock(mutex_);
    const bool sound = frame->kind() == ZelFrameKind::Audio;
    if (sound) {
      lastSound_ = frame->timestamp;
    }
    (sound ? heldSound_ : heldPictures_).addObject(std::move(frame));
  }

  /// Sends what may go, in order, without a lock held; a thread that finds another one at it leaves it to that one.
  /// `oldestPicture` tells the time stamp of the oldest picture that a stage holds, or `none`.
  void drain(const auto& oldestPicture, const auto& send) {
    std::unique_lock lock(mutex_);
    if (draining_) {
      return;
    }
    draining_ = true;
    while (auto frame = next(oldestPicture)) {
      lock.unlock();
      send(std::move(frame));
      lock.lock();
    }
    draining_ = false;
  }

 private:
  /// A stage that hangs costs about a second; then the others go on without it.
  static constexpr std::size_t mostHeld = 47;

  Frame next(const auto& oldestPicture) {
    const bool sound =
        heldPictures_.empty() || (!heldSound_.empty() && heldSound_[0]->timestamp < heldPictures_[0]->timestamp);
    ZelFrameList& held = sound ? heldSound_ : heldPictures_;
    if (held.empty()) {
      return nullptr;
    }
    // Looked at before the stages are asked, because that is the way a picture goes.
    std::uint64_t due = oldest(pictures_);
    due = std::min(due, oldestPicture());
    if (!sound && !sounds_.empty()) {
      due = std::min(due, lastSound_);
    }
    if (held.count() <= mostHeld && held[0]->timestamp > due && youngest_.front() > due) {
      return nullptr;
    }
    auto frame = held.popFirstObject();
    if (frame->timestamp > youngest_.front()) {
      youngest_.front() = frame->timestamp;
      std::sort(youngest_.begin(), youngest_.end());
    }
    return frame;
  }

  static std::uint64_t oldest(const std::vector<std::uint64_t>& list) {
    return list.empty() ? none : *std::min_element(list.begin(), list.end());
  }

  std::mutex mutex_;
  std::vector<std::uint64_t> sounds_;
  std::vector<std::uint64_t> pictures_;
  ZelFrameList heldSound_;
  ZelFrameList heldPictures_;
  std::uint64_t lastSound_ = 0;
  /// The highest time stamps that have gone, lowest first: when all of them have overtaken a frame, no more may.
  std::array<std::uint64_t, ZelStreamingBuffer::sortCount> youngest_{};
  bool draining_ = false;
};

}  // namespace zellive
