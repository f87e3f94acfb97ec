#include <csignal>
#include <string>
#include <thread>

#include "tests/e2e/Tool.h"
#include "tests/faults/World.h"

namespace zellive::test {
namespace {

int count(const std::string& text, const std::string& part) {
  int found = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

TEST(NetworkChange, IsNoticedWithinASecondAndRebuildsTheConnectionOnce) {
  if (!NginxServer::available()) {
    GTEST_SKIP() << "nginx with its RTMP module is not installed; scripts/setup installs it";
  }
  World world(true);
  if (!world.machines) {
    GTEST_SKIP() << "this takes a real network";
  }
  std::unique_ptr<Process> tool;
  world.at(&TwoMachines::publisher, [&] {
    tool = std::make_unique<Process>(
        toolCommand("rtmp://203.0.113.7:" + std::to_string(world.front->port()) + "/live/moving",
                    {"--test-card", "--size", "160x90", "--json", "--verbose", "--reconnect-interval", "1"}));
  });
  const auto& [server, publisher] = *world.machines;
  const struct {
    const char* what;
    const NetworkNamespace& where;
    const char* commands;
    char status;    // Of the network, afterwards.
    int errors;     // 203, so far.
    int published;  // So far.
  } steps[] = {
      {"the cable is pulled", server, "ip link set near0 down", '0', 1, 1},
      {"and plugged in again", server, "ip link set near0 up", '2', 1, 2},
      {"the default route moves", publisher, "ip route replace default via 198.51.100.1", '1', 1, 3},
      {"the link is switched off", publisher, "ip link set wwan0 down", '0', 2, 3},
      {"and on", publisher, "ip link set wwan0 up; ip route add default via 198.51.100.1", '1', 2, 4},
  };
  const std::string notice = "net reachabilityChange ";
  const auto published = [&] { return count(world.server->log(), "publish: name='moving'"); };
  const auto changes = [&] { return count(tool->errors(), notice); };
  ASSERT_TRUE(tool->waitForText("\"type\":\"status\"", 20s)) << tool->errors();
  for (int told = 1; const auto& [what, where, commands, status, errors, publishes] : steps) {
    where.run(commands);
    ASSERT_TRUE(waitUntil([&] { return changes() == told; }, 1s)) << what << ": not noticed\n" << tool->errors();
    ASSERT_TRUE(waitUntil([&] { return published() == publishes; }, 10s)) << what << '\n' << world.server->log();
    // Long enough for a second attempt, and for a second notice of the same.
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(changes(), told++) << what << '\n' << tool->errors();
    EXPECT_EQ(published(), publishes) << what << '\n' << tool->errors();
    EXPECT_EQ(count(tool->output(), "\"code\":203"), errors) << what;
    const auto text = tool->errors();
    EXPECT_EQ(text[text.rfind(notice) + notice.size()], status) << what;
  }
  for (const auto& [words, times] : {std::pair{"the network is gone; waiting", 2},
                                     {"the network is back; connecting", 2},
                                     {"the network has changed; connecting", 1}}) {
    EXPECT_EQ(count(tool->errors(), words), times) << words << '\n' << tool->errors();
  }
  EXPECT_EQ(count(tool->output(), "\"type\":\"recovered\""), 3) << tool->output();
  tool->signal(SIGINT);
  expectEnd(*tool, 0, 5s);
  EXPECT_FALSE(FlvFile(world.server->finishedRecording("moving")).mediaTags(FlvTag::Video).empty());
}

}  // namespace
}  // namespace zellive::test
