#pragma once

#include <poll.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "tests/support/Sockets.h"

namespace zellive::test {

/// A loopback TCP relay that plays a slow network: bytes towards the server pass at a rate that can be changed at any
/// time, and little is buffered on the way, so that the sender feels it. Answers pass at once. One connection at a
/// time; a new one is taken when the former has ended.
class ThrottledRelay {
 public:
  explicit ThrottledRelay(std::uint16_t serverPort) : serverPort_(serverPort) { keepSmall(listener_.descriptor()); }
  ~ThrottledRelay() {
    stop_ = true;
    thread_.join();
  }
  ThrottledRelay(const ThrottledRelay&) = delete;
  ThrottledRelay& operator=(const ThrottledRelay&) = delete;

  [[nodiscard]] std::uint16_t port() const { return listener_.port(); }
  /// Bytes a second towards the server.
  void setRate(double bytesPerSecond) { rate_ = bytesPerSecond; }

 private:
  static void keepSmall(int descriptor) {
    constexpr int size = 16 * 1024;
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
  }

  void run() {
    while (!stop_) {
      pollfd waiting{listener_.descriptor(), POLLIN, 0};
      if (poll(&waiting, 1, 50) <= 0) {
        continue;
      }
      const int client = accept(listener_.descriptor(), nullptr, nullptr);
      const int server = connectToLoopback(serverPort_);
      if (client >= 0 && server >= 0) {
        keepSmall(client);
        keepSmall(server);
        relay(client, server);
      }
      close(client);
      close(server);
    }
  }

  void relay(int client, int server) {
    double allowance = 0;
    auto last = std::chrono::steady_clock::now();
    while (!stop_) {
      const auto now = std::chrono::steady_clock::now();
      const double rate = rate_;
      // After a pause, 20 ms' worth may pass in one go.
      allowance =
          std::min(allowance + rate * std::chrono::duration<double>(now - last).count(), std::max(rate * 0.02, 1.0));
      last = now;
      // A descriptor of -1 is passed over: while nothing is allowed through, the sender's bytes stay where they are.
      std::array<pollfd, 2> from{{{allowance >= 1 ? client : -1, POLLIN, 0}, {server, POLLIN, 0}}};
      if (poll(from.data(), from.size(), 5) < 0 ||
          (from[0].revents != 0 && !pass(client, server, std::min(allowance, 4096.0), &allowance)) ||
          (from[1].revents != 0 && !pass(server, client, 4096, nullptr))) {
        return;
      }
    }
  }

  /// Moves what has come, `room` bytes at most, and takes it off the allowance. False when either side has gone.
  static bool pass(int from, int to, double room, double* allowance) {
    std::array<char, 4096> buffer{};
    const auto count = recv(from, buffer.data(), static_cast<std::size_t>(room), 0);
    if (allowance != nullptr) {
      *allowance -= static_cast<double>(count);
    }
    // A blocking socket takes all of it, or fails.
    return count > 0 && send(to, buffer.data(), static_cast<std::size_t>(count), MSG_NOSIGNAL) == count;
  }

  LoopbackListener listener_;
  const std::uint16_t serverPort_;
  std::atomic<double> rate_{1e12};
  std::atomic<bool> stop_{false};
  std::thread thread_{[this] { run(); }};
};

}  // namespace zellive::test
