#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/support/Sockets.h"

namespace zellive::test {

/// A loopback TCP relay in front of a server that plays what can go wrong with the server and on the way to it. Little
/// is buffered on the way, so that a sender feels the far end.
class Relay {
 public:
  enum class Conduct {
    Pass,
    Swallow,      ///< Nothing comes through, not even the end of a connection.
    Refuse,       ///< Nobody listens, and all connections are gone.
    Silent,       ///< Connections are accepted; nothing is ever said on them. Those that were open are gone.
    HangUp,       ///< Connections are accepted and ended. Those that were open are gone.
    StopReading,  ///< Of each connection nothing is read once its stream has begun; answers come through.
    CutMessages,  ///< Each connection ends at an arbitrary byte once its stream has begun.
    KeepName,     ///< Those that were open are gone for the client, and stay for the server. Others pass.
  };

  /// `address`: whom it listens to, as the in_addr_t of an interface.
  explicit Relay(std::uint16_t serverPort, std::uint32_t address = INADDR_LOOPBACK);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  [[nodiscard]] std::uint16_t port() const { return listener_.port(); }
  /// Holds when this returns. What a former conduct kept back is let go of.
  void setConduct(Conduct conduct);
  /// Bytes a second of each connection towards the server; answers pass at once.
  void setRate(double bytesPerSecond);

 private:
  struct Link {
    Descriptor client;  ///< None once it is closed for the client alone.
    Descriptor server;  ///< None when there has never been one.
    std::size_t passed = 0;
    double allowance = 0;
  };

  void run();
  void acceptAll();
  [[nodiscard]] bool serve(Link& link, double seconds) const;

  const std::uint16_t serverPort_;
  const LoopbackListener listener_;
  std::mutex mutex_;
  std::condition_variable changed_;
  Conduct conduct_ = Conduct::Pass;
  double rate_ = 1e12;
  bool stop_ = false;
  std::vector<Link> links_;
  std::thread thread_;
};

}  // namespace zellive::test
