#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

namespace zellive {

struct HostAddress {
  sockaddr_storage address{};
  socklen_t length = 0;
};

struct HostAddresses {
  std::vector<HostAddress> addresses;  ///< In the order in which to try them.
  std::string failure;                 ///< Why there are none; for people.
};

/// Finds the addresses of hosts by their names.
class NameService {
 public:
  virtual ~NameService() = default;
  /// The addresses of `host`, IPv6 and IPv4, with `port` in them. Blocks for as long as the name servers take, which
  /// may be half a minute: not for a thread that somebody waits for. Thread-safe; does not throw.
  [[nodiscard]] virtual HostAddresses lookUp(const std::string& host, std::uint16_t port) = 0;
};

}  // namespace zellive
