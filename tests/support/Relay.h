#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace zellive::test {

/// A loopback TCP relay in front of a server that plays what can go wrong with the server and on the way to it. Little
/// is buffered on the way, so that a sender feels the far end.
class Relay {
 public:
  enum class Conduct {
    Pass,
    Swallow,      ///< Nothing comes through, not even the request for a connection or the end of one.
    Refuse,       ///< Nobody listens, and all connections are gone.
    Silent,       ///< Connections are accepted; nothing is ever said on them. Those that were open are gone.
    HangUp,       ///< Connections end with their first bytes. Those that were open are gone.
    StopReading,  ///< Of each connection nothing is read once its stream has begun; answers come through.
    CutMessages,  ///< Each connection ends at an arbitrary byte once its stream has begun.
    KeepName,     ///< Those that were open are gone for the client, and stay for the server. Others pass.
  };

  /// `address`: whom it listens to, as the in_addr_t of an interface.
  explicit Relay(std::uint16_t serverPort, std::uint32_t address = INADDR_LOOPBACK);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  [[nodiscard]] std::uint16_t port() const { return port_; }
  /// Holds when this returns. What a former conduct kept back is let go of.
  void setConduct(Conduct conduct);
  /// Bytes a second of each connection towards the server; answers pass at once.
  void setRate(double bytesPerSecond);

 private:
  struct Link {
    int client = -1;  ///< −1 once it is closed for the client alone.
    int server = -1;  ///< −1 when there has never been one.
    std::size_t passed = 0;
    double allowance = 0;
    bool stuck = false;  ///< The server takes no more at present.
  };

  int bound();
  void openListener();
  void swallowRequests();
  void run();
  void wake();
  void acceptOne();
  [[nodiscard]] bool mayPass(const Link& link) const;
  [[nodiscard]] std::vector<pollfd> wanted() const;
  bool serve(Link& link, const pollfd& client, const pollfd& server) const;
  template <typename Which>
  void drop(Which which);

  const std::uint16_t serverPort_;
  const std::uint32_t address_;
  std::uint16_t port_ = 0;
  std::mutex mutex_;
  const int reserved_ = bound();  ///< Keeps the port while nobody listens.
  int listener_ = -1;
  int filler_ = -1;  ///< The connection that fills the queue of those who ask for one.
  int wakeUp_;
  Conduct conduct_ = Conduct::Pass;
  double rate_ = 1e12;
  bool stop_ = false;
  unsigned changes_ = 0;
  std::vector<Link> links_;
  std::thread thread_;
};

}  // namespace zellive::test
