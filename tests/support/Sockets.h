#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

namespace zellive::test {

/// The address of a loopback port, AF_INET or AF_INET6. The port stands in the same place in both.
union LoopbackAddress {
  LoopbackAddress(int family, std::uint16_t port) : six{} {
    if (family == AF_INET) {
      four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
      six.sin6_addr = in6addr_loopback;
    }
    any.sa_family = static_cast<sa_family_t>(family);
    six.sin6_port = htons(port);
  }
  sockaddr any;
  sockaddr_in four;
  sockaddr_in6 six;
};

/// A listening TCP socket on a free loopback port, closed with the object. Throws std::runtime_error when there is none
/// to be had, as with IPv6 on some machines. With a backlog of 0 a single connection waits and others go unanswered.
class LoopbackListener {
 public:
  explicit LoopbackListener(int family = AF_INET, int backlog = 16)
      : descriptor_(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    LoopbackAddress address(family, 0);
    socklen_t length = sizeof address;
    if (bind(descriptor_, &address.any, length) != 0 || listen(descriptor_, backlog) != 0 ||
        getsockname(descriptor_, &address.any, &length) != 0) {
      close(descriptor_);
      throw std::runtime_error("cannot listen on the loopback");
    }
    port_ = ntohs(address.six.sin6_port);
  }
  ~LoopbackListener() { close(descriptor_); }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;
  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] int descriptor() const { return descriptor_; }

 private:
  const int descriptor_;
  std::uint16_t port_ = 0;
};

/// A port that was free a moment ago.
[[nodiscard]] inline std::uint16_t freePort() { return LoopbackListener().port(); }

/// A connection to a loopback port; -1 when nobody listens there.
[[nodiscard]] inline int connectToLoopback(std::uint16_t port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const LoopbackAddress address(AF_INET, port);
  if (connect(descriptor, &address.any, sizeof address) == 0) {
    return descriptor;
  }
  close(descriptor);
  return -1;
}

}  // namespace zellive::test
