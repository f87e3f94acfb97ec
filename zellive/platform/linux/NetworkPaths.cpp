#include "zellive/platform/linux/NetworkPaths.h"

#include <arpa/inet.h>

#include <algorithm>
#include <tuple>

namespace zellive {
namespace {

const NetworkLink* linkOf(const NetworkSnapshot& network, int index) {
  const auto found = std::ranges::find(network.links, index, &NetworkLink::index);
  return found == network.links.end() ? nullptr : &*found;
}

bool isUp(const NetworkSnapshot& network, int index) {
  const NetworkLink* link = linkOf(network, index);
  return link != nullptr && link->up;
}

/// Whether the machine has an address from which packets can take this route and be answered.
bool hasSource(const NetworkSnapshot& network, const NetworkRoute& route) {
  return std::ranges::any_of(network.addresses, [&](const NetworkAddress& own) {
    if (!own.usable || own.address.six != route.destination.six || !isUp(network, own.link)) {
      return false;
    }
    return route.source ? own.address == *route.source
                        : !own.address.isLoopback() && (!own.address.isLinkLocal() || route.destination.isLinkLocal());
  });
}

bool leadsOut(const NetworkSnapshot& network, const NetworkRoute& route) {
  const NetworkLink* link = linkOf(network, route.link);
  return link != nullptr && link->up && link->running && !link->loopback && hasSource(network, route);
}

bool isOwn(const NetworkSnapshot& network, const IpAddress& address) {
  return std::ranges::any_of(network.addresses, [&](const NetworkAddress& own) {
    return own.address == address && own.usable && isUp(network, own.link);
  });
}

NetworkWay through(const NetworkSnapshot& network, const NetworkRoute& route) {
  const bool mobile = linkOf(network, route.link)->mobile;
  return {mobile ? ReachabilityStatus::ReachableViaWWAN : ReachabilityStatus::ReachableViaWiFi, route.link,
          route.gateway, route.source};
}

NetworkWay withinTheMachine(const NetworkSnapshot& network) {
  const auto loopback =
      std::ranges::find_if(network.links, [](const NetworkLink& link) { return link.loopback && link.up; });
  return loopback == network.links.end() ? NetworkWay{}
                                         : NetworkWay{ReachabilityStatus::ReachableViaWiFi, loopback->index, {}, {}};
}

/// Equal routes in a fixed order, so that the kernel's listing them in another one is no change.
auto tieBreak(const NetworkRoute& route) { return std::tie(route.metric, route.link, route.gateway); }

NetworkWay wayToAddress(const NetworkSnapshot& network, const IpAddress& to) {
  if (to.isLoopback() || isOwn(network, to)) {
    return withinTheMachine(network);
  }
  const NetworkRoute* best = nullptr;
  const auto isBetter = [&](const NetworkRoute& route) {
    return best == nullptr || std::tuple(route.policy, best->prefixLength, tieBreak(route)) <
                                  std::tuple(best->policy, route.prefixLength, tieBreak(*best));
  };
  for (const NetworkRoute& route : network.routes) {
    if (route.destination.six == to.six && to.isIn(route.destination, route.prefixLength) &&
        (route.refuses || leadsOut(network, route)) && isBetter(route)) {
      best = &route;
    }
  }
  return best == nullptr || best->refuses ? NetworkWay{} : through(network, *best);
}

/// A default route if there is one.
NetworkWay wayOut(const NetworkSnapshot& network) {
  const NetworkRoute* best = nullptr;
  const auto order = [](const NetworkRoute& route) {
    return std::tuple(route.policy, route.prefixLength, route.destination.six, tieBreak(route));
  };
  for (const NetworkRoute& route : network.routes) {
    if (!route.refuses && !route.destination.isLinkLocal() && !route.destination.isMulticast() &&
        leadsOut(network, route) && (best == nullptr || order(route) < order(*best))) {
      best = &route;
    }
  }
  return best == nullptr ? NetworkWay{} : through(network, *best);
}

}  // namespace

std::optional<IpAddress> IpAddress::parse(std::string text) {
  text.resize(std::min(text.find('%'), text.size()));
  IpAddress address;
  if (inet_pton(AF_INET, text.c_str(), address.bytes.data()) == 1) {
    return address;
  }
  if (inet_pton(AF_INET6, text.c_str(), address.bytes.data()) != 1) {
    return std::nullopt;
  }
  address.six = true;
  constexpr std::array<std::uint8_t, 12> mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  if (std::equal(mapped.begin(), mapped.end(), address.bytes.begin())) {
    IpAddress plain;
    std::copy(address.bytes.begin() + mapped.size(), address.bytes.end(), plain.bytes.begin());
    return plain;
  }
  return address;
}

bool IpAddress::isLoopback() const {
  constexpr std::array<std::uint8_t, 16> one{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  return six ? bytes == one : bytes[0] == 127;
}

bool IpAddress::isLinkLocal() const {
  return six ? bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80 : bytes[0] == 169 && bytes[1] == 254;
}

bool IpAddress::isMulticast() const { return six ? bytes[0] == 0xFF : (bytes[0] & 0xF0) == 0xE0; }

bool IpAddress::isIn(const IpAddress& prefix, unsigned length) const {
  const unsigned whole = std::min(length / 8, 16U);
  if (!std::equal(bytes.begin(), bytes.begin() + whole, prefix.bytes.begin())) {
    return false;
  }
  const unsigned rest = whole < 16 ? length % 8 : 0;
  return rest == 0 || (bytes.at(whole) ^ prefix.bytes.at(whole)) >> (8 - rest) == 0;
}

NetworkWay wayToHost(const NetworkSnapshot& network, const std::vector<IpAddress>& host) {
  if (host.empty()) {
    return wayOut(network);
  }
  for (const IpAddress& address : host) {
    if (const NetworkWay way = wayToAddress(network, address); way.usable()) {
      return way;
    }
  }
  return {};
}

}  // namespace zellive
