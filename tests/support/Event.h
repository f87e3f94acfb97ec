#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

namespace zellive::test {

/// Something that happens on another thread and is waited for. May be destroyed as soon as wait() has returned.
class Event {
 public:
  void set() {
    const auto state = state_;
    std::call_once(state->once, [&] { state->happened.set_value(); });
  }
  /// False when it has not happened within a time that no sound program needs.
  [[nodiscard]] bool wait() const {
    return state_->future.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
  }

 private:
  struct State {
    std::once_flag once;
    std::promise<void> happened;
    std::shared_future<void> future = happened.get_future().share();
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
