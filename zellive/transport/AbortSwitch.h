#pragma once

#include <chrono>
#include <mutex>

namespace zellive {

/// Ends a blocked connection from another thread.
///
/// The connection's owner waits through the switch or lets it guard the socket that it is about to block on; throwing
/// the switch ends the wait and shuts the socket down. The switch keeps a duplicate of the descriptor, so that the
/// shutdown reaches the right connection even when librtmp has closed its own descriptor and the number is in use
/// again.
class AbortSwitch {
 public:
  enum class State { Open, Aborted, Expired };
  enum class Wait { Ready, Timeout, Thrown };

  AbortSwitch();
  ~AbortSwitch();
  AbortSwitch(const AbortSwitch&) = delete;
  AbortSwitch& operator=(const AbortSwitch&) = delete;

  /// Thread-safe. The first call decides what state() says.
  void throwSwitch(State reason);
  [[nodiscard]] State state() const;

  /// Owner: guards `socket` from now on; false when it cannot be duplicated. A thrown switch shuts it down at once.
  bool guard(int socket);
  /// Owner: the guarded duplicate, -1 without one. It stays open until release().
  [[nodiscard]] int socket() const;
  /// Owner: lets go of the guarded socket.
  void release();

  /// Owner: waits for `events` (as for poll) on `descriptor`, -1 to wait for the switch alone.
  Wait wait(int descriptor, short events, std::chrono::steady_clock::time_point deadline) const;

 private:
  mutable std::mutex mutex_;
  State state_ = State::Open;
  int socket_ = -1;
  int event_;
};

}  // namespace zellive
