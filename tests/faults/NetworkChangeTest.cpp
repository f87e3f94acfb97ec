#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/e2e/Tool.h"
#include "tests/faults/TwoMachines.h"

namespace zellive::test {
namespace {

int count(const std::string& text, const std::string& part) {
  int found = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

TEST(NetworkChangeTest, IsNoticedWithinASecondAndRebuildsTheConnectionOnce) {
  if (!NginxServer::available()) {
    GTEST_SKIP() << "nginx with its RTMP module is not installed; scripts/setup installs it";
  }
  std::unique_ptr<TwoMachines> machines;
  std::unique_ptr<NginxServer> nginx;
  try {
    machines = std::make_unique<TwoMachines>();
  } catch (const std::runtime_error& reason) {
    GTEST_SKIP() << reason.what();
  }
  {
    const NetworkNamespace::Stay inside(machines->server);
    nginx = std::make_unique<NginxServer>("0.0.0.0");
  }
  std::unique_ptr<Process> tool;
  {
    const NetworkNamespace::Stay inside(machines->publisher);
    tool = std::make_unique<Process>(
        toolCommand("rtmp://203.0.113.7:" + std::to_string(nginx->rtmpPort()) + "/live/moving",
                    {"--test-card", "--size", "160x90", "--json", "--verbose", "--reconnect-interval", "1"}));
  }
  struct Step {
    const char* what;
    const NetworkNamespace& where;
    const char* commands;
    int status;     // Of the network, afterwards.
    int errors;     // 203, so far.
    int published;  // So far.
  };
  const Step steps[] = {
      {"the cable is pulled", machines->server, "ip link set near0 down", 0, 1, 1},
      {"and plugged in again", machines->server, "ip link set near0 up", 2, 1, 2},
      {"the default route moves", machines->publisher, "ip route replace default via 198.51.100.1", 1, 1, 3},
      {"the link is switched off", machines->publisher, "ip link set wwan0 down", 0, 2, 3},
      {"and on", machines->publisher, "ip link set wwan0 up; ip route add default via 198.51.100.1", 1, 2, 4},
  };
  const auto published = [&] { return count(nginx->log(), "publish: name='moving'"); };
  const auto changes = [&] { return count(tool->errors(), "net reachabilityChange"); };
  ASSERT_TRUE(tool->waitForText("\"type\":\"status\"", 20s)) << tool->errors();
  std::ptrdiff_t told = 0;
  for (const auto& [what, where, commands, status, errors, publishes] : steps) {
    const auto start = std::chrono::steady_clock::now();
    where.run(commands);
    ASSERT_TRUE(waitUntil([&] { return changes() > told; }, 1s)) << what << ": not noticed\n" << tool->errors();
    RecordProperty(std::string(what) + ", milliseconds until noticed",
                   static_cast<int>((std::chrono::steady_clock::now() - start) / 1ms));
    ++told;
    ASSERT_TRUE(waitUntil([&] { return published() == publishes; }, 10s)) << what << '\n' << nginx->log();
    // Long enough for a second attempt, and for a second notice of the same.
    std::this_thread::sleep_for(2s);
    EXPECT_EQ(changes(), told) << what << '\n' << tool->errors();
    EXPECT_EQ(published(), publishes) << what << '\n' << tool->errors();
    EXPECT_EQ(count(tool->output(), "\"code\":203"), errors) << what;
    const auto text = tool->errors();
    EXPECT_EQ(text[text.rfind("net reachabilityChange ") + 23], static_cast<char>('0' + status)) << what;
  }
  for (const auto& [words, times] : {std::pair{"the network is gone; waiting", 2},
                                     {"the network is back; connecting", 2},
                                     {"the network has changed; connecting", 1}}) {
    EXPECT_EQ(count(tool->errors(), words), times) << words << '\n' << tool->errors();
  }
  EXPECT_EQ(count(tool->output(), "\"type\":\"recovered\""), 3) << tool->output();
  tool->signal(SIGINT);
  expectEnd(*tool, 0, 5s);
  EXPECT_FALSE(FlvFile(nginx->finishedRecording("moving")).mediaTags(FlvTag::Video).empty());
}

}  // namespace
}  // namespace zellive::test
