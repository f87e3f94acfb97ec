#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "zellive/platform/NameService.h"
#include "zellive/transport/AbortSwitch.h"

namespace zellive {

/// The addresses of a host, IPv6 and IPv4. The name service works on a thread of its own, which is left behind when it
/// takes longer than `limit` or the switch is thrown: a dead name server holds nobody up.
[[nodiscard]] HostAddresses resolveHost(const std::shared_ptr<NameService>& names, const std::string& host,
                                        std::uint16_t port, std::chrono::milliseconds limit, const AbortSwitch& abort);

}  // namespace zellive
