#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zellive/platform/NameService.h"
#include "zellive/transport/AbortSwitch.h"
#include "zellive/transport/RtmpConnection.h"

namespace zellive {

struct DialResult {
  int socket = -1;                     ///< Blocking, the caller's to close; -1 after a failure.
  std::chrono::milliseconds took{0};   ///< For the socket, the name's resolution not counted.
  RTMPError error;                     ///< Of a failure.
  std::vector<std::string> addresses;  ///< Of the host, in numbers; the one that answered first.
};

/// Connects to a host by any of its addresses, tried one after the other, within the options' limits. The socket has
/// their limits on sending and receiving and their send buffer, and sends without delay.
[[nodiscard]] DialResult dialTcp(const std::shared_ptr<NameService>& names, const std::string& host, std::uint16_t port,
                                 const RtmpOptions& options, const AbortSwitch& abort);

/// Limits each later send() or recv() on `socket` (SO_SNDTIMEO or SO_RCVTIMEO).
void setSocketTimeout(int socket, int option, std::chrono::milliseconds limit);

}  // namespace zellive
