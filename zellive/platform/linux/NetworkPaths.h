#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "zellive/platform/Reachability.h"

namespace zellive {

/// An IPv4 (in the first four bytes) or IPv6 address.
struct IpAddress {
  bool six = false;
  std::array<std::uint8_t, 16> bytes{};

  /// A zone ("%eth0") is left out; an IPv4 address in IPv6 clothes becomes plain. Nothing for a name.
  [[nodiscard]] static std::optional<IpAddress> parse(std::string text);
  [[nodiscard]] bool isLoopback() const;
  [[nodiscard]] bool isLinkLocal() const;
  [[nodiscard]] bool isMulticast() const;
  /// Whether it shares its first `length` bits with `prefix`.
  [[nodiscard]] bool isIn(const IpAddress& prefix, unsigned length) const;
  auto operator<=>(const IpAddress&) const = default;
};

struct NetworkLink {
  int index = 0;
  bool up = false;       ///< The administrator wants it.
  bool running = false;  ///< It has a carrier, and its peer does.
  bool loopback = false;
  bool mobile = false;
};

struct NetworkAddress {
  int link = 0;
  IpAddress address;
  bool usable = true;  ///< False while it is being checked for duplicates.
};

/// A route to elsewhere; routes to the machine's own addresses are not listed.
struct NetworkRoute {
  IpAddress destination;
  unsigned prefixLength = 0;
  int link = 0;
  std::optional<IpAddress> gateway;
  std::optional<IpAddress> source;  ///< The address to send from, where the route names one.
  std::uint32_t metric = 0;         ///< The lower one wins.
  bool policy = false;              ///< Only a policy rule leads to its table.
  bool refuses = false;             ///< Unreachable, prohibit or blackhole; has no link.
};

/// What the kernel says about the network at one moment.
struct NetworkSnapshot {
  std::vector<NetworkLink> links;
  std::vector<NetworkAddress> addresses;
  std::vector<NetworkRoute> routes;
};

/// How packets leave. Two ways that differ are two networks for a connection, whatever their status.
struct NetworkWay {
  ReachabilityStatus status = ReachabilityStatus::NotReachable;
  int link = 0;
  std::optional<IpAddress> gateway;
  std::optional<IpAddress> source;

  [[nodiscard]] bool usable() const { return status != ReachabilityStatus::NotReachable; }
  bool operator==(const NetworkWay&) const = default;
};

/// The way to a host with these addresses, the first that has one; with none, the way to anywhere beyond the machine.
/// Links' flags count for more than routes, which outlive a link's carrier.
[[nodiscard]] NetworkWay wayToHost(const NetworkSnapshot& network, const std::vector<IpAddress>& host);

}  // namespace zellive
