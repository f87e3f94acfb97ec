#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

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

}  // namespace zellive::test
