#include "zellive/platform/Semaphore.h"

#include <condition_variable>
#include <mutex>

namespace zellive {

struct CountingSemaphore::State {
  std::mutex mutex;
  std::condition_variable changed;
  std::uint64_t count = 0;
};

CountingSemaphore::CountingSemaphore(std::uint64_t count) : state_(std::make_shared<State>()) { state_->count = count; }

void CountingSemaphore::signal() {
  const std::lock_guard lock(state_->mutex);
  ++state_->count;
  state_->changed.notify_one();
}

bool CountingSemaphore::tryWait() {
  const std::lock_guard lock(state_->mutex);
  if (state_->count == 0) {
    return false;
  }
  --state_->count;
  return true;
}

bool CountingSemaphore::wait(Queue& timer, std::chrono::nanoseconds limit) {
  if (tryWait()) {
    return true;
  }
  const auto over = std::make_shared<bool>(false);
  const auto ending = timer.after(limit, [state = state_, over] {
    const std::lock_guard lock(state->mutex);
    *over = true;
    state->changed.notify_all();
  });
  bool taken = false;
  {
    std::unique_lock lock(state_->mutex);
    state_->changed.wait(lock, [&] { return *over || state_->count > 0; });
    taken = state_->count > 0;
    if (taken) {
      --state_->count;
    }
  }
  ending->cancel();
  return taken;
}

}  // namespace zellive
