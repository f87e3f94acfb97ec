#include "zellive/platform/linux/NetlinkReachability.h"

#include <gtest/gtest.h>
#include <poll.h>

#include "tests/support/ManualPlatform.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/NetworkText.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

const std::string kWired = "link 2; own 2 192.0.2.5; route 192.0.2.0/24 dev 2; route 0.0.0.0/0 via 192.0.2.1 dev 2;";
const std::string kPulled = "link 2 still;" + kWired.substr(7);
const std::string kMobile = "link 3 wwan; own 3 10.0.0.5; route 0.0.0.0/0 via 10.0.0.1 dev 3";

TEST(WatchedNetwork, IsToldOfOnceWithinASecondOfEachChange) {
  const LogCapture log;
  ManualPlatform manual;
  FakeNetwork fake{network(kWired)};
  const auto make = [&] {
    return NetlinkReachability::create(std::make_unique<FakeNetworkSource>(fake),
                                       manual.time->makeSerialQueue("network"), manual.notifications);
  };
  auto service = make();
  int posts = 0;
  const auto observation =
      manual.notifications->addObserver(notification::ReachabilityDidChange, [&](const UserInfo&) { ++posts; });
  // The network becomes this; its change comes as three pieces of news. The status then, and how often it was told.
  const auto change = [&](const std::string& text) {
    fake.now = network(text);
    for (int i = 0; i < 3; ++i) {
      service->takeNews();
      manual.advance(50ms);
    }
    manual.advance(850ms);
    return std::pair(static_cast<int>(service->networkReachabilityStatus()), std::exchange(posts, 0));
  };
  EXPECT_EQ(change(kWired), std::pair(2, 0)) << "the first answer is no change";
  const std::tuple<const char*, std::string, int, int> steps[] = {
      {"nothing of note", kWired + "link 9", 2, 0},
      {"the cable is pulled", kPulled, 0, 1},
      {"somebody tidies up behind it", "link 2 still", 0, 0},
      {"it is plugged in again", kWired, 2, 1},
      {"the gateway is another", kWired + "route 0.0.0.0/0 via 192.0.2.9 dev 2 metric 0", 2, 0},
      {"over to the mobile link", kPulled + kMobile, 1, 1},
      {"with the same status through another link", "link 4;own 4 192.0.2.6;route 0.0.0.0/0 dev 4", 2, 1},
  };
  for (const auto& [what, text, status, told] : steps) {
    EXPECT_EQ(change(text), std::pair(status, told)) << what;
  }
  fake.readable = false;
  EXPECT_EQ(change(kPulled), std::pair(2, 0)) << "as long as nothing can be read";
  fake.readable = true;
  manual.advance(1s);
  EXPECT_EQ(posts, 1);
  service->takeNews();
  service.reset();
  const int reads = fake.reads;
  manual.advance(1s);
  EXPECT_EQ(fake.reads, reads) << "it is gone";
  fake.readable = false;
  EXPECT_EQ(make(), nullptr);
}

/// Against the kernel, in a network namespace of the test's own.
class KernelNetwork : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      inside = std::make_unique<NetworkNamespace>();
    } catch (const std::runtime_error& reason) {
      GTEST_SKIP() << reason.what();
    }
    inside->run(
        "ip link add wired0 type veth peer name other0; ip link add wwan0 type veth peer name other1;"
        "for link in wired0 wwan0 other0 other1; do ip link set $link up; done;"
        "ip addr add 192.0.2.5/24 dev wired0; ip addr add 10.0.0.5/8 dev wwan0;"
        "ip route add default via 192.0.2.1 metric 5; ip -6 addr add 2001:db8::5/64 dev wired0 nodad");
    const NetworkNamespace::Stay stay(*inside);
    std::string failure;
    source = RouteNetlink::open(failure);
    ASSERT_NE(source, nullptr) << failure;
  }
  /// The status for a host that some commands lead to. The kernel tells of carriers a moment after the command.
  void becomes(int expected, const std::string& commands, const char* host, const char* why = "") {
    inside->run(commands);
    int status = -2;
    pollfd news{source->descriptor(), POLLIN, 0};
    while (status != expected && poll(&news, 1, 2000) == 1) {
      EXPECT_TRUE(source->takeNews());
      const auto read = source->read();
      status = read ? static_cast<int>(wayToHost(*read, {ip(host)}).status) : -2;
    }
    EXPECT_EQ(status, expected) << commands << ' ' << why;
  }
  std::unique_ptr<NetworkNamespace> inside;
  std::unique_ptr<RouteNetlink> source;
};

TEST_F(KernelNetwork, IsReadAsItIs) {
  becomes(2, "ip addr add 192.0.2.6/24 dev wired0", "198.51.100.7");
  becomes(0, "ip link set other0 down", "198.51.100.7", "the peer is down");
  becomes(2, "ip link set other0 up", "198.51.100.7");
  becomes(0, "ip link set wired0 down", "192.0.2.77", "whose routes go without a word");
  becomes(0, "ip link set wired0 up", "198.51.100.7", "nor does the default route come back by itself");
  becomes(1, "ip -4 route add default via inet6 fe80::1 dev wwan0", "198.51.100.7");
  becomes(0, "ip route add blackhole 198.51.100.0/24", "198.51.100.7");
  becomes(0, "echo 99 > /proc/sys/net/ipv6/conf/wwan0/dad_transmits; ip -6 addr add 2001:db8:5::5/64 dev wwan0",
          "2001:db8:5::7", "still under test");
  becomes(1, "ip -6 addr add 2001:db8:6::5/64 dev wwan0 nodad", "2001:db8:6::7");
  becomes(1, "ip route add 203.0.113.0/24 nexthop via 192.0.2.1 nexthop via 10.0.0.1; ip link set other0 down",
          "203.0.113.7", "the other hop");
  // More than the kernel keeps for a reader who is late.
  becomes(0,
          "for i in $(seq 100); do for j in $(seq 200); do echo addr add 10.1.$i.$j/32 dev wwan0;"
          "echo addr del 10.1.$i.$j/32 dev wwan0; done; done | ip -batch -; ip link set wwan0 down",
          "10.0.0.9");
}

TEST(NetlinkReachabilityTest, WatchesThisMachine) {
  const auto platform = defaultPlatform();
  const auto notifications = std::make_shared<NotificationCenter>();
  auto service = makeNetworkReachability(*platform->queues, notifications);
  const auto here = service->forHost("127.0.0.1");
  ASSERT_NE(here, nullptr) << "the kernel does not tell about the network";
  EXPECT_EQ(here->networkReachabilityStatus(), ReachabilityStatus::ReachableViaWiFi);
  EXPECT_TRUE(QMZNetworkState(here).isReachable());
}

}  // namespace
}  // namespace zellive::test
