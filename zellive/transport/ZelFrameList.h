#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "zellive/session/ZelFrame.h"

namespace zellive {

/// A list of frames in a ring: adding at the end and taking from the front cost amortised constant time, and nothing is
/// allocated once the ring has reached its size. Not thread-safe.
class ZelFrameList {
 public:
  using Frame = std::shared_ptr<const ZelFrame>;

  [[nodiscard]] std::size_t count() const noexcept { return count_; }
  [[nodiscard]] bool empty() const noexcept { return count_ == 0; }
  /// The frame at `index`, counted from the oldest; `index` must be below count().
  [[nodiscard]] const Frame& operator[](std::size_t index) const { return ring_[slot(index)]; }

  void addObject(Frame frame) {
    if (count_ == ring_.size()) {
      grow();
    }
    ring_[slot(count_++)] = std::move(frame);
  }

  /// Does nothing on an empty list.
  void removeFirstObject() { static_cast<void>(popFirstObject()); }

  /// Takes the oldest frame out; null when there is none.
  [[nodiscard]] Frame popFirstObject() {
    if (count_ == 0) {
      return nullptr;
    }
    Frame first = std::exchange(ring_[first_], nullptr);
    first_ = slot(1);
    --count_;
    return first;
  }

  /// Takes out the frames at `indices` (ascending, all below count()) in one pass; the others keep their order.
  void removeObjectsAtIndices(const std::vector<std::size_t>& indices) {
    if (indices.empty()) {
      return;
    }
    auto next = indices.begin();
    std::size_t kept = *next;
    for (std::size_t index = kept; index < count_; ++index) {
      if (next != indices.end() && *next == index) {
        ++next;
      } else {
        ring_[slot(kept++)] = std::move(ring_[slot(index)]);
      }
    }
    while (count_ > kept) {
      ring_[slot(--count_)] = nullptr;
    }
  }

  /// Sorts by insertion, which suits a short list in which only the last frames are out of place.
  template <typename Compare>
  void sortUsingFunction(Compare compare) {
    for (std::size_t end = 1; end < count_; ++end) {
      for (std::size_t at = end; at > 0 && compare(*ring_[slot(at - 1)], *ring_[slot(at)]) > 0; --at) {
        std::swap(ring_[slot(at - 1)], ring_[slot(at)]);
      }
    }
  }

 private:
  [[nodiscard]] std::size_t slot(std::size_t index) const noexcept { return (first_ + index) & (ring_.size() - 1); }

  void grow() {
    std::vector<Frame> larger(ring_.empty() ? 8 : ring_.size() * 2);
    for (std::size_t index = 0; index < count_; ++index) {
      larger[index] = std::move(ring_[slot(index)]);
    }
    ring_ = std::move(larger);
    first_ = 0;
  }

  std::vector<Frame> ring_;  // Its size is a power of two, so that a mask wraps an index.
  std::size_t first_ = 0;
  std::size_t count_ = 0;
};

}  // namespace zellive
