#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "zellive/transport/AbortSwitch.h"

namespace zellive {

struct HostAddress {
  sockaddr_storage address{};
  socklen_t length = 0;
};

struct HostAddresses {
  std::vector<HostAddress> addresses;  ///< In the order in which to try them.
  std::string failure;                 ///< Why there are none.
};

/// The addresses of a host, IPv6 and IPv4. The resolver works on a thread of its own, which is left behind when it
/// takes longer than `limit` or the switch is thrown: a dead name server holds nobody up.
[[nodiscard]] HostAddresses resolveHost(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit,
                                        const AbortSwitch& abort);

}  // namespace zellive
