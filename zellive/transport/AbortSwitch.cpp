#include "zellive/transport/AbortSwitch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

namespace zellive {

AbortSwitch::AbortSwitch() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

AbortSwitch::~AbortSwitch() {
  release();
  if (event_ >= 0) {
    ::close(event_);
  }
}

void AbortSwitch::throwSwitch(State reason) {
  const std::lock_guard lock(mutex_);
  if (state_ == State::Open) {
    state_ = reason;
  }
  if (socket_ >= 0) {
    ::shutdown(socket_, SHUT_RDWR);
  }
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(event_, &one, sizeof one);
}

AbortSwitch::State AbortSwitch::state() const {
  const std::lock_guard lock(mutex_);
  return state_;
}

bool AbortSwitch::guard(int socket) {
  release();
  const std::lock_guard lock(mutex_);
  socket_ = ::fcntl(socket, F_DUPFD_CLOEXEC, 0);
  if (socket_ >= 0 && state_ != State::Open) {
    ::shutdown(socket_, SHUT_RDWR);
  }
  return socket_ >= 0;
}

int AbortSwitch::socket() const {
  const std::lock_guard lock(mutex_);
  return socket_;
}

void AbortSwitch::release() {
  const std::lock_guard lock(mutex_);
  if (const int socket = std::exchange(socket_, -1); socket >= 0) {
    ::close(socket);
  }
}

AbortSwitch::Wait AbortSwitch::wait(int descriptor, short events,
                                    std::chrono::steady_clock::time_point deadline) const {
  using std::chrono::milliseconds;
  for (;;) {
    std::array<pollfd, 2> polled{{{event_, POLLIN, 0}, {descriptor, events, 0}}};
    const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
    const auto limit = std::clamp(left, milliseconds(0), milliseconds(1'000'000));
    const int ready = ::poll(polled.data(), polled.size(), static_cast<int>(limit.count()));
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    if (state() != State::Open) {
      return Wait::Thrown;
    }
    return ready > 0 ? Wait::Ready : Wait::Timeout;
  }
}

}  // namespace zellive
