#include "zellive/platform/linux/PipeWireConnection.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <map>
#include <mutex>

#include "tests/support/ManualPlatform.h"
#include "tests/support/PipeWireDaemon.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;
using test::PipeWireDaemon;
using test::waitUntil;

/// The names of the nodes that there are.
class Nodes : public PipeWireConnection::User {
 public:
  void connectionMade() override {
    const std::lock_guard lock(mutex_);
    connected_ = true;
  }
  void connectionLost() override {
    const std::lock_guard lock(mutex_);
    connected_ = false;
    names_.clear();
  }
  void objectAppeared(const PipeWireObject& object) override {
    const std::lock_guard lock(mutex_);
    names_[object.id] = object.property("node.name");
  }
  void objectVanished(std::uint32_t id) override {
    const std::lock_guard lock(mutex_);
    names_.erase(id);
  }

  [[nodiscard]] bool connected() const {
    const std::lock_guard lock(mutex_);
    return connected_;
  }
  [[nodiscard]] bool has(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    return std::any_of(names_.begin(), names_.end(), [&](const auto& entry) { return entry.second == name; });
  }

 private:
  mutable std::mutex mutex_;
  bool connected_ = false;
  std::map<std::uint32_t, std::string> names_;
};

TEST(PipeWireConnection, WhereDescriptorsHaveRunOutThereIsNoDaemon) {
  const auto queue = defaultPlatform()->queues->makeSerialQueue("test");
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  const rlimit none{0, limit.rlim_max};
  Nodes nodes;
  {
    PipeWireConnection connection(queue);  // The library's plug-ins are opened once in a process.
    connection.add(nodes);
    (void)connection.waitUntilListed(20s);
    connection.remove(nodes);
  }
  const LogCapture log;
  {
    PipeWireConnection connection(queue);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    connection.add(nodes);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_FALSE(connection.waitUntilListed(20s));
    connection.remove(nodes);
  }
  EXPECT_TRUE(waitUntil([&] { return log.count("PipeWire cannot be used: its library does not start") == 1; }, 30s));
}

TEST(PipeWireConnection, TellsWhatThereIsAndSurvivesTheDaemon) {
  if (!PipeWireDaemon::available()) {
    GTEST_SKIP() << "PipeWire, WirePlumber and GStreamer are not installed";
  }
  const LogCapture log;
  PipeWireDaemon daemon;
  daemon.kill();
  Nodes nodes;
  Nodes later;
  PipeWireConnection connection(defaultPlatform()->queues->makeSerialQueue("test"));
  connection.add(nodes);
  EXPECT_FALSE(connection.waitUntilListed(20s));
  EXPECT_TRUE(waitUntil([&] { return log.count("PipeWire is not running") == 1; }, 30s));
  EXPECT_FALSE(nodes.connected());
  daemon.start();
  EXPECT_TRUE(waitUntil([&] { return nodes.has("zellive-mic"); }, 30s)) << daemon.log();
  ASSERT_TRUE(connection.waitUntilListed(20s)) << daemon.log();
  EXPECT_TRUE(nodes.connected());

  auto camera = PipeWireDaemon::plugIn({});
  ASSERT_TRUE(waitUntil([&] { return nodes.has("test-camera"); }, 30s)) << camera->errors();
  connection.add(later);
  EXPECT_TRUE(later.connected());
  EXPECT_TRUE(later.has("test-camera"));
  connection.remove(later);
  camera.reset();
  ASSERT_TRUE(waitUntil([&] { return !nodes.has("test-camera"); }, 30s));
  EXPECT_TRUE(later.has("test-camera"));  // Whoever has left is not told any more.

  daemon.kill();
  ASSERT_TRUE(waitUntil([&] { return !nodes.connected(); }, 30s));
  EXPECT_FALSE(nodes.has("zellive-mic"));
  EXPECT_FALSE(connection.waitUntilListed(20s));
  daemon.start();
  ASSERT_TRUE(waitUntil([&] { return nodes.connected() && nodes.has("zellive-mic"); }, 30s)) << daemon.log();
  EXPECT_TRUE(waitUntil([&] { return log.count("PipeWire is there again") == 2; }, 30s));
  EXPECT_EQ(log.count("PipeWire has ended"), 1U);
  EXPECT_EQ(log.count(LogLevel::Warning, ""), 2U);
  connection.remove(nodes);
}

}  // namespace
}  // namespace zellive
