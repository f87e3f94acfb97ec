#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace zellive::test {

/// Something that happens on another thread and is waited for. May be destroyed as soon as wait() has returned.
class Event {
 public:
  void set() {
    const auto state = state_;
    const std::lock_guard lock(state->mutex);
    state->happened = true;
    state->changed.notify_all();
  }
  /// False when it has not happened within a time that no sound program needs.
  [[nodiscard]] bool wait() const {
    const auto state = state_;
    std::unique_lock lock(state->mutex);
    return state->changed.wait_for(lock, std::chrono::seconds(30), [&] { return state->happened; });
  }

 private:
  struct State {
    std::mutex mutex;
    std::condition_variable changed;
    bool happened = false;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

/// Does `meddle` over and over on another thread until `work` has returned on this one.
inline void whileMeddling(const std::function<void()>& meddle, const std::function<void()>& work) {
  const std::jthread meddler([&](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      meddle();
    }
  });
  work();
}

}  // namespace zellive::test
