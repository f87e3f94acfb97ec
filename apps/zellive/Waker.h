#pragma once

#include <chrono>
#include <optional>
#include <utility>

namespace zellive::tool {

/// Where the program's one loop sleeps: until a time, until another thread wakes it, or until it is asked to end.
class Waker {
 public:
  using Duration = std::chrono::nanoseconds;

  enum class Suspension {
    Toggle,  ///< SIGTSTP, which Ctrl-Z sends.
    End,     ///< SIGCONT.
  };

  /// Takes SIGINT, SIGTERM, SIGTSTP and SIGCONT over. Make it before any other thread starts: those must not get the
  /// signals. Throws std::system_error when the kernel has no descriptors left.
  Waker();
  /// Gives the signals back.
  ~Waker();
  Waker(const Waker&) = delete;
  Waker& operator=(const Waker&) = delete;

  /// Of the steady clock.
  [[nodiscard]] static Duration now();
  /// Ends the present or the next sleep. Any thread.
  void wake();
  /// Sleeps until `time` of the steady clock at most.
  void sleepUntil(Duration time);
  /// SIGINT or SIGTERM has come.
  [[nodiscard]] bool endRequested() const { return endRequested_; }
  /// The last such signal since the last call.
  [[nodiscard]] std::optional<Suspension> takeSuspension() { return std::exchange(suspension_, std::nullopt); }
  /// From here on a signal ends the program at once: for an impatient second Ctrl-C.
  void releaseSignals();

 private:
  void takeSignals();

  int wakeFd_ = -1;
  int signalFd_ = -1;
  bool endRequested_ = false;
  bool holdsSignals_ = false;
  std::optional<Suspension> suspension_;
};

}  // namespace zellive::tool
