#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "zellive/platform/Queue.h"

namespace zellive {

/// A counting semaphore whose time limit runs on a queue. Thread-safe.
class CountingSemaphore {
 public:
  explicit CountingSemaphore(std::uint64_t count);

  void signal();
  /// Takes one if there is one.
  bool tryWait();
  /// Takes one, waiting for at most `limit`; false when there was none by then. `timer` must not be blocked by this.
  bool wait(Queue& timer, std::chrono::nanoseconds limit);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace zellive
