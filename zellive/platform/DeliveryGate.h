#pragma once

#include <atomic>
#include <thread>

namespace zellive {

/// Where a device's thread hands over what it has. Closing waits for a delivery under way, unless it is called from
/// inside that delivery. Delivering takes no lock. Thread-safe, but for one delivering thread at a time.
class DeliveryGate {
 public:
  void open() { open_ = true; }

  void close() {
    open_ = false;
    for (auto inside = inside_.load(); inside != std::thread::id() && !isInside(); inside = inside_.load()) {
      inside_.wait(inside);
    }
  }

  [[nodiscard]] bool isOpen() const { return open_; }
  /// Whether the caller is called by a delivery.
  [[nodiscard]] bool isInside() const { return inside_ == std::this_thread::get_id(); }

  /// Calls `delivery` if the gate is open; it may close it.
  template <typename Delivery>
  void deliver(const Delivery& delivery) {
    inside_ = std::this_thread::get_id();
    if (open_) {
      delivery();
    }
    inside_ = std::thread::id();
    inside_.notify_all();
  }

 private:
  std::atomic<bool> open_{false};
  std::atomic<std::thread::id> inside_{};
};

}  // namespace zellive
