#pragma once

#include <cstdint>

namespace zellive::test {

/// A TCP socket on the loopback, closed with the object.
class LoopbackListener {
 public:
  LoopbackListener();
  ~LoopbackListener();
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;
  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] int descriptor() const { return descriptor_; }

 private:
  int descriptor_ = -1;
  std::uint16_t port_ = 0;
};

/// A port that was free a moment ago.
[[nodiscard]] std::uint16_t freePort();

/// A connection to a loopback port; -1 when nobody listens there.
[[nodiscard]] int connectToLoopback(std::uint16_t port);

}  // namespace zellive::test
