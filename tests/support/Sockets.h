#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>

#include "zellive/platform/linux/Descriptor.h"

namespace zellive::test {

/// A port of the loopback, AF_INET or AF_INET6. The port stands in the same place in both.
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

/// A listening TCP socket, on a free loopback port unless it says otherwise. Throws std::runtime_error when there is
/// none to be had, as with IPv6 on some machines.
class LoopbackListener {
 public:
  LoopbackListener() : LoopbackListener(LoopbackAddress(AF_INET, 0)) {}
  explicit LoopbackListener(LoopbackAddress address)
      : socket_(::socket(address.any.sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    constexpr int on = 1;
    setsockopt(descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t length = sizeof address;
    if (bind(descriptor(), &address.any, length) != 0 || listen(descriptor(), 16) != 0 ||
        getsockname(descriptor(), &address.any, &length) != 0) {
      throw std::runtime_error("cannot listen on the loopback");
    }
    port_ = ntohs(address.six.sin6_port);
  }
  [[nodiscard]] std::uint16_t port() const { return port_; }
  [[nodiscard]] int descriptor() const { return socket_.get(); }

 private:
  Descriptor socket_;
  std::uint16_t port_ = 0;
};

/// A port that was free a moment ago.
[[nodiscard]] inline std::uint16_t freePort() { return LoopbackListener().port(); }

/// A connection to a loopback port; none when nobody listens there.
[[nodiscard]] inline Descriptor connectToLoopback(std::uint16_t port) {
  Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const LoopbackAddress address(AF_INET, port);
  return connect(socket.get(), &address.any, sizeof address) == 0 ? std::move(socket) : Descriptor();
}

}  // namespace zellive::test
