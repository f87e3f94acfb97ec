#include "tests/support/Sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace zellive::test {
namespace {

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

}  // namespace

LoopbackListener::LoopbackListener() : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  auto address = loopback(0);
  socklen_t length = sizeof address;
  if (descriptor_ < 0 || bind(descriptor_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      listen(descriptor_, 16) != 0 || getsockname(descriptor_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot listen on the loopback");
  }
  port_ = ntohs(address.sin_port);
}

LoopbackListener::~LoopbackListener() { close(descriptor_); }

std::uint16_t freePort() { return LoopbackListener().port(); }

int connectToLoopback(std::uint16_t port) {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto address = loopback(port);
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    close(descriptor);
    return -1;
  }
  return descriptor;
}

}  // namespace zellive::test
