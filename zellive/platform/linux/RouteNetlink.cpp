#include "zellive/platform/linux/RouteNetlink.h"

#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

namespace zellive {
namespace {

constexpr unsigned kGroups =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
/// No message of a dump is larger.
constexpr std::size_t kBufferSize = 64UL * 1024;
/// Reads of a network that keeps changing meanwhile.
constexpr int kAttempts = 4;
constexpr int kAnswerLimit = 2;  // Seconds; the kernel answers at once, a sandbox may not.
/// A link without Ethernet frames, as modems make it (ARPHRD_RAWIP, which the C library does not name).
constexpr unsigned short kRawIp = 519;

/// The attributes of a message or of a nested attribute, by type.
class Attributes {
 public:
  Attributes(const nlmsghdr& message, unsigned headerSize) { mnl_attr_parse(&message, headerSize, &keep, this); }
  explicit Attributes(const nlattr* nest) { mnl_attr_parse_nested(nest, &keep, this); }
  Attributes(const void* bytes, std::size_t size) { mnl_attr_parse_payload(bytes, size, &keep, this); }

  [[nodiscard]] const nlattr* find(std::uint16_t type) const { return type < table_.size() ? table_[type] : nullptr; }
  [[nodiscard]] std::uint32_t number(std::uint16_t type, std::uint32_t otherwise = 0) const {
    const nlattr* attribute = find(type);
    return attribute != nullptr && mnl_attr_get_payload_len(attribute) >= 4 ? mnl_attr_get_u32(attribute) : otherwise;
  }
  [[nodiscard]] std::string_view text(std::uint16_t type) const {
    const nlattr* attribute = find(type);
    if (attribute == nullptr) {
      return {};
    }
    const auto* begin = static_cast<const char*>(mnl_attr_get_payload(attribute));
    return {begin, strnlen(begin, mnl_attr_get_payload_len(attribute))};
  }
  [[nodiscard]] std::optional<IpAddress> address(std::uint16_t type, int family) const {
    const nlattr* attribute = find(type);
    const std::size_t size = family == AF_INET6 ? 16 : 4;
    if (attribute == nullptr || mnl_attr_get_payload_len(attribute) < size) {
      return std::nullopt;
    }
    IpAddress result;
    result.six = family == AF_INET6;
    std::memcpy(result.bytes.data(), mnl_attr_get_payload(attribute), size);
    return result;
  }

 private:
  static int keep(const nlattr* attribute, void* self) {
    auto& table = static_cast<Attributes*>(self)->table_;
    if (const auto type = mnl_attr_get_type(attribute); type < table.size()) {
      table[type] = attribute;
    }
    return MNL_CB_OK;
  }

  std::array<const nlattr*, 64> table_{};
};

template <typename Header>
const Header& headerOf(const nlmsghdr& message) {
  return *static_cast<const Header*>(mnl_nlmsg_get_payload(&message));
}

/// Modems are told by what their drivers and the naming of devices make of them.
bool isMobile(const ifinfomsg& header, const Attributes& attributes) {
  const auto name = attributes.text(IFLA_IFNAME);
  const nlattr* info = attributes.find(IFLA_LINKINFO);
  const Attributes details = info != nullptr ? Attributes(info) : Attributes(nullptr, 0);
  const auto kind = details.text(IFLA_INFO_KIND);
  return header.ifi_type == kRawIp || kind == "wwan" || kind == "rmnet" || name.starts_with("ww") ||
         name.starts_with("rmnet");
}

void takeLink(const nlmsghdr& message, NetworkSnapshot& network) {
  const auto& header = headerOf<ifinfomsg>(message);
  NetworkLink link;
  link.index = header.ifi_index;
  link.up = (header.ifi_flags & IFF_UP) != 0;
  link.running = (header.ifi_flags & IFF_RUNNING) != 0;
  link.loopback = (header.ifi_flags & IFF_LOOPBACK) != 0;
  link.mobile = isMobile(header, Attributes(message, sizeof header));
  network.links.push_back(link);
}

void takeAddress(const nlmsghdr& message, NetworkSnapshot& network) {
  const auto& header = headerOf<ifaddrmsg>(message);
  const Attributes attributes(message, sizeof header);
  // On a link between two ends IFA_ADDRESS is the other end's.
  auto address = attributes.address(IFA_LOCAL, header.ifa_family);
  if (!address) {
    address = attributes.address(IFA_ADDRESS, header.ifa_family);
  }
  if (address && (header.ifa_family == AF_INET || header.ifa_family == AF_INET6)) {
    const auto flags = attributes.number(IFA_FLAGS, header.ifa_flags);
    const bool tentative = (flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) != 0 && (flags & IFA_F_OPTIMISTIC) == 0;
    network.addresses.push_back({static_cast<int>(header.ifa_index), *address, !tentative});
  }
}

/// The next hop of an IPv4 route may be an IPv6 address.
std::optional<IpAddress> gatewayIn(const Attributes& attributes, int family) {
  if (const auto gateway = attributes.address(RTA_GATEWAY, family)) {
    return gateway;
  }
  const nlattr* via = attributes.find(RTA_VIA);
  IpAddress address;
  if (via == nullptr || mnl_attr_get_payload_len(via) < sizeof(rtvia) + 16) {
    return std::nullopt;
  }
  address.six = true;
  std::memcpy(address.bytes.data(), static_cast<const rtvia*>(mnl_attr_get_payload(via))->rtvia_addr, 16);
  return address;
}

/// One route for each usable next hop.
void takeHops(const nlattr* hops, int family, NetworkRoute& route, NetworkSnapshot& network) {
  const auto* hop = static_cast<const rtnexthop*>(mnl_attr_get_payload(hops));
  int left = mnl_attr_get_payload_len(hops);
  for (; RTNH_OK(hop, left); left -= RTNH_ALIGN(hop->rtnh_len), hop = RTNH_NEXT(hop)) {
    if ((hop->rtnh_flags & (RTNH_F_DEAD | RTNH_F_LINKDOWN)) == 0) {
      route.link = hop->rtnh_ifindex;
      route.gateway = gatewayIn(Attributes(RTNH_DATA(hop), hop->rtnh_len - sizeof *hop), family);
      network.routes.push_back(route);
    }
  }
}

void takeRoute(const nlmsghdr& message, NetworkSnapshot& network) {
  const auto& header = headerOf<rtmsg>(message);
  const Attributes attributes(message, sizeof header);
  const auto table = attributes.number(RTA_TABLE, header.rtm_table);
  const bool refuses =
      header.rtm_type == RTN_UNREACHABLE || header.rtm_type == RTN_PROHIBIT || header.rtm_type == RTN_BLACKHOLE;
  if ((header.rtm_family != AF_INET && header.rtm_family != AF_INET6) || table == RT_TABLE_LOCAL ||
      (header.rtm_type != RTN_UNICAST && !refuses) || header.rtm_tos != 0 ||
      (header.rtm_flags & (RTM_F_CLONED | RTNH_F_DEAD | RTNH_F_LINKDOWN)) != 0) {
    return;
  }
  NetworkRoute route;
  route.destination =
      attributes.address(RTA_DST, header.rtm_family).value_or(IpAddress{header.rtm_family == AF_INET6, {}});
  route.prefixLength = header.rtm_dst_len;
  route.source = attributes.address(RTA_PREFSRC, header.rtm_family);
  route.metric = attributes.number(RTA_PRIORITY);
  route.policy = table != RT_TABLE_MAIN && table != RT_TABLE_DEFAULT;
  route.refuses = refuses;
  if (const nlattr* hops = attributes.find(RTA_MULTIPATH); hops != nullptr) {
    takeHops(hops, header.rtm_family, route, network);
    return;
  }
  route.link = refuses ? 0 : static_cast<int>(attributes.number(RTA_OIF));
  route.gateway = gatewayIn(attributes, header.rtm_family);
  network.routes.push_back(route);
}

}  // namespace

RouteNetlink::RouteNetlink(Socket news, Socket questions)
    : news_(std::move(news)), questions_(std::move(questions)), buffer_(kBufferSize) {}

std::unique_ptr<RouteNetlink> RouteNetlink::open(std::string& failure) {
  Socket news(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK), &mnl_socket_close);
  Socket questions(news ? mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC) : nullptr, &mnl_socket_close);
  const timeval limit{kAnswerLimit, 0};
  if (!questions || mnl_socket_bind(news.get(), kGroups, MNL_SOCKET_AUTOPID) != 0 ||
      mnl_socket_bind(questions.get(), 0, MNL_SOCKET_AUTOPID) != 0 ||
      ::setsockopt(mnl_socket_get_fd(questions.get()), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
    failure = std::system_category().message(errno);
    return nullptr;
  }
  return std::unique_ptr<RouteNetlink>(new RouteNetlink(std::move(news), std::move(questions)));
}

int RouteNetlink::descriptor() const { return mnl_socket_get_fd(news_.get()); }

bool RouteNetlink::takeNews() {
  bool any = false;
  for (;;) {
    if (mnl_socket_recvfrom(news_.get(), buffer_.data(), buffer_.size()) < 0) {
      // Too much has happened at once: some of it is lost, and the next read sees all of it.
      if (errno != ENOBUFS && errno != EINTR) {
        return any;
      }
    }
    any = true;
  }
}

std::optional<NetworkSnapshot> RouteNetlink::read() {
  takeNews();
  for (int left = kAttempts; left > 0; --left) {
    NetworkSnapshot network;
    const Dump result = readOnce(network);
    if (result == Dump::Failed) {
      break;
    }
    // Links, addresses and routes belong together only if nothing changed between them. News of the last attempt stays
    // where it is, for the next read.
    if (result == Dump::Complete && (left == 1 || !takeNews())) {
      return network;
    }
  }
  return std::nullopt;
}

RouteNetlink::Dump RouteNetlink::readOnce(NetworkSnapshot& network) {
  Dump result = dump(RTM_GETLINK, [&](const nlmsghdr& message) { takeLink(message, network); });
  if (result == Dump::Complete) {
    result = dump(RTM_GETADDR, [&](const nlmsghdr& message) { takeAddress(message, network); });
  }
  if (result == Dump::Complete) {
    result = dump(RTM_GETROUTE, [&](const nlmsghdr& message) { takeRoute(message, network); });
  }
  return result;
}

RouteNetlink::Dump RouteNetlink::dump(std::uint16_t type, const std::function<void(const nlmsghdr&)>& take) {
  nlmsghdr* request = mnl_nlmsg_put_header(buffer_.data());
  request->nlmsg_type = type;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = ++sequence_;
  // The longest of the headers, zeroed: every family.
  mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg));
  if (mnl_socket_sendto(questions_.get(), request, request->nlmsg_len) < 0) {
    return Dump::Failed;
  }
  bool torn = false;
  for (;;) {
    const auto size = mnl_socket_recvfrom(questions_.get(), buffer_.data(), buffer_.size());
    if (size < 0 && errno != EINTR) {
      return Dump::Failed;
    }
    int left = static_cast<int>(size);
    for (const auto* message = reinterpret_cast<const nlmsghdr*>(buffer_.data()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left)) {
      if (message->nlmsg_seq != sequence_) {
        continue;  // Left over from a dump that failed.
      }
      torn = torn || (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
      if (message->nlmsg_type == NLMSG_DONE) {
        return torn ? Dump::Torn : Dump::Complete;
      }
      if (message->nlmsg_type == NLMSG_ERROR) {
        return Dump::Failed;
      }
      take(*message);
    }
  }
}

}  // namespace zellive
