#include "zellive/platform/linux/NetworkPaths.h"

#include <gtest/gtest.h>

#include "tests/support/NetworkText.h"

namespace zellive::test {
namespace {

/// "2 through 3 via 192.0.2.1": status, link, gateway.
std::string inWords(const NetworkWay& way) {
  std::string text = std::to_string(static_cast<int>(way.status));
  if (way.usable()) {
    text += " through " + std::to_string(way.link);
  }
  return text + (way.gateway ? " via ." + std::to_string(way.gateway->bytes[way.gateway->six ? 15 : 3]) : "");
}

TEST(NetworkPathsTest, AHostIsReachableWhereAUsableRouteLeadsToIt) {
  const std::string wired = "link 2; own 2 192.0.2.5; route 192.0.2.0/24 dev 2;";
  const std::string both = wired +
                           "route 0.0.0.0/0 via 192.0.2.1 dev 2 metric 100; link 3 wwan; own 3 10.0.0.5;"
                           "route 0.0.0.0/0 via 10.0.0.1 dev 3 metric 600;";
  const std::string six = "link 4; own 4 fe80::4; route fe80::/64 dev 4; route ::/0 via fe80::9 dev 4;";
  struct Case {
    const char* what;
    std::string network;
    std::vector<const char*> host;  // None: unknown.
    const char* way;
  };
  const Case cases[] = {
      {"this machine needs no network", "", {"127.0.0.5"}, "2 through 1"},
      {"in IPv6 clothes", "", {"::ffff:127.0.0.1"}, "2 through 1"},
      {"nor does an address of its own", wired, {"192.0.2.5"}, "2 through 1"},
      {"whose link is without a carrier", "link 2 still; own 2 192.0.2.5", {"192.0.2.5"}, "2 through 1"},
      {"but not whose link is down", "link 2 down; own 2 192.0.2.5", {"192.0.2.5"}, "0"},
      {"nothing beyond the loopback", "", {}, "0"},
      {"a neighbour", wired, {"192.0.2.77"}, "2 through 2"},
      {"a stranger without a default route", wired, {"198.51.100.7"}, "0"},
      {"an unknown host may be a neighbour", wired, {}, "2 through 2"},
      {"the lower metric", both, {"198.51.100.7"}, "2 through 2 via .1"},
      {"unknown: by the default route too", both, {}, "2 through 2 via .1"},
      {"the cable is pulled, routes stay", "link 2 still;" + both.substr(7), {}, "1 through 3 via .1"},
      {"a neighbour is not found elsewhere", "link 2 down;" + both.substr(7), {"192.0.2.77"}, "1 through 3 via .1"},
      {"the longer prefix", both + "route 198.51.100.0/25 dev 3", {"198.51.100.7"}, "1 through 3"},
      {"which ends in the last bit", both + "route 198.51.100.128/25 dev 3", {"198.51.100.7"}, "2 through 2 via .1"},
      {"a route to nowhere", both + "route 198.51.100.0/24 refuses", {"198.51.100.7"}, "0"},
      {"concerns no other host", both + "route 198.51.100.0/24 refuses", {}, "2 through 2 via .1"},
      {"its source address is gone", "link 2; own 2 192.0.2.5; route 0.0.0.0/0 dev 2 src 192.0.2.4", {}, "0"},
      {"no address to send from", "link 2; route 0.0.0.0/0 dev 2", {}, "0"},
      {"a table that rules lead to", wired + "route 0.0.0.0/0 dev 2 policy", {"198.51.100.7"}, "2 through 2"},
      {"after the main one", both + "route 198.51.100.7/32 dev 3 policy", {"198.51.100.7"}, "2 through 2 via .1"},
      {"link-local addresses are no network", six, {}, "0"},
      {"but neighbours", six, {"fe80::77%4"}, "2 through 4"},
      {"an address under test", six + "own 4 2001:db8::5 tentative", {"2001:db8:1::7"}, "0"},
      {"and passed", six + "own 4 2001:db8::5", {"2001:db8:1::7"}, "2 through 4 via .9"},
      {"the first address that has a way", wired + six, {"2001:db8:1::7", "192.0.2.77"}, "2 through 2"},
  };
  for (const auto& [what, text, host, way] : cases) {
    std::vector<IpAddress> addresses;
    for (const char* address : host) {
      addresses.push_back(ip(address));
    }
    EXPECT_EQ(inWords(wayToHost(network(text), addresses)), way) << what << ": " << text;
  }
}

}  // namespace
}  // namespace zellive::test
