#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "tests/support/Sockets.h"

namespace zellive::test {

/// A loopback TCP relay that plays a slow network: bytes towards the server pass at a rate that can be changed at any
/// time, and little is buffered on the way, so that the sender feels it. Answers pass at once. One connection at a
/// time; a new one is taken when the former has ended.
class ThrottledRelay {
 public:
  explicit ThrottledRelay(std::uint16_t serverPort);
  ~ThrottledRelay();
  ThrottledRelay(const ThrottledRelay&) = delete;
  ThrottledRelay& operator=(const ThrottledRelay&) = delete;

  [[nodiscard]] std::uint16_t port() const { return listener_.port(); }
  /// Bytes a second towards the server; 0 stops them.
  void setRate(double bytesPerSecond) { rate_ = bytesPerSecond; }
  /// Closes the present connection on both sides.
  void cut() { cut_ = true; }

 private:
  void run();
  void relay(int client, int server);

  LoopbackListener listener_;
  const std::uint16_t serverPort_;
  std::atomic<double> rate_{1e12};
  std::atomic<bool> cut_{false};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace zellive::test
