#include <gtest/gtest.h>

#include "tests/support/FakeRtmp.h"
#include "tests/support/ManualPlatform.h"
#include "tests/support/NetworkText.h"
#include "tests/transport/Fixtures.h"
#include "zellive/platform/linux/NetlinkReachability.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

const std::string kUp = "link 2; own 2 192.0.2.5; route 192.0.2.0/24 dev 2; route 0.0.0.0/0 via 192.0.2.1 dev 2";
const std::string kNoDefault = kUp.substr(0, kUp.rfind(';'));
const std::string kDown = "link 2 still;" + kUp.substr(7);
const std::string kMoved = kDown + "; link 3; own 3 10.0.0.5; route 0.0.0.0/0 via 10.0.0.1 dev 3";

/// A publisher and the real service, on a network that the test makes.
TEST(NetworkPolicyTest, APublisherFollowsTheWayToItsHost) {
  struct Step {
    const std::string& network;
    const char* told;  // In the six seconds from then on.
  };
  const char* const rebuilt = "url, status 5, status 2, ";
  struct Case {
    const char* host;
    const char* foundAt;
    std::vector<Step> steps;
  };
  const Case cases[] = {
      {"198.51.100.7", "198.51.100.7", {{kUp, ""}, {kDown, "error 203, "}, {kUp, rebuilt}, {kMoved, rebuilt}}},
      {"198.51.100.7", "198.51.100.7", {{kNoDefault, "error 203, "}, {kDown, ""}, {kMoved, rebuilt}, {kMoved, ""}}},
      {"192.0.2.77", "192.0.2.77", {{kNoDefault, ""}, {kDown, "error 203, "}, {kNoDefault, rebuilt}}},
      {"studio.example.net", "192.0.2.77", {{kNoDefault, ""}, {kDown, "error 203, "}, {kNoDefault, rebuilt}}},
      {"live.example.net", "198.51.100.7", {{kNoDefault, "error 203, "}, {kUp, rebuilt}}},
      {"live.example.net", "", {{kNoDefault, rebuilt}, {kDown, "error 203, "}, {kMoved, rebuilt}}},
      {"localhost", "127.0.0.1", {{kDown, ""}, {kMoved, ""}}},
  };
  for (const auto& [host, foundAt, steps] : cases) {
    ManualPlatform manual;
    const LogCapture log;
    FakeNetwork fake{network(kUp)};
    const auto service = NetlinkReachability::create(std::make_unique<FakeNetworkSource>(fake),
                                                     manual.time->makeSerialQueue("network"), manual.notifications);
    auto platform = std::make_shared<Platform>(*manual.platform());
    platform->reachability = service;
    FakeRtmp rtmp;
    rtmp.hostAddresses = {foundAt};
    const auto reports = std::make_shared<Reports>();
    const auto socket = ZelStreamRtmpSocket::create(streamAt("rtmp://" + std::string(host) + "/live/key"), 5, 3,
                                                    platform, rtmp.factory());
    socket->setDelegate(reports);
    socket->start();
    manual.advance(1s);
    for (const auto& [next, told] : steps) {
      reports->events.clear();
      fake.now = network(next);
      service->takeNews();
      manual.advance(6s);
      std::string events;
      for (const auto& event : reports->events) {
        events += event + ", ";
      }
      EXPECT_EQ(events, told) << host << " at " << foundAt << ": " << next;
    }
    // A new URL brings its own host's way with it.
    socket->updateStreamInfo(streamAt("rtmp://127.0.0.1/live/key"));
    rtmp.hostAddresses.clear();
    rtmp.breakConnection({-8, "gone"});
    manual.advance(6s);
    reports->events.clear();
    fake.now = network("");
    service->takeNews();
    manual.advance(1s);
    EXPECT_TRUE(reports->events.empty()) << host << ": the new one is this machine";
    socket->stop();
    manual.runPending();
  }
}

}  // namespace
}  // namespace zellive::test
