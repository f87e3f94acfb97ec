#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/faults/Broadcast.h"
#include "tests/faults/World.h"
#include "tests/support/FlvFile.h"

// Everything that can go wrong between a session and a real server, alone and in pairs: what is told meanwhile, that
// the stream goes on afterwards, and that sessions which end in the middle of it leave nothing behind.

namespace zellive::test {
namespace {

using Conduct = Relay::Conduct;

enum class Place { Way, Name, Server };

struct FaultRow {
  const char* name;
  Place place;
  bool breaks;         ///< Ends a connection that is up.
  bool blocks;         ///< Lets no new one come up.
  const char* reason;  ///< Words that the log has for it.
  void (*set)(World&, bool on);
};

template <Conduct conduct>
void serverThat(World& world, bool on) {
  world.front->setConduct(on ? conduct : Conduct::Pass);
}

/// On a real network, or with the relay that plays it.
void onTheWay(World& world, NetworkNamespace TwoMachines::*where, const char* command, bool on, Conduct played) {
  if (world.machines) {
    ((*world.machines).*where).run(command);
  } else {
    world.way->setConduct(on ? played : Conduct::Pass);
  }
}

/// Faults further up hide those further down.
const FaultRow faults[] = {
    {"LinkDown", Place::Way, true, true, "",
     [](World& world, bool on) {
       onTheWay(world, &TwoMachines::server, on ? "ip link set near0 down" : "ip link set near0 up", on,
                Conduct::Swallow);
       if (world.reachability) {
         world.reachability->setNetworkReachabilityStatus(on ? ReachabilityStatus::NotReachable
                                                             : ReachabilityStatus::ReachableViaWiFi);
       }
     }},
    {"NameLost", Place::Name, false, true, "cannot find the host stream.test: Name or service not known",
     [](World& world, bool on) { world.names->lost = on; }},
    {"PacketsSwallowed", Place::Way, true, true, "timed out",
     [](World& world, bool on) {  // Those that come back: the server's kernel has no way to the publisher.
       onTheWay(world, &TwoMachines::server,
                on ? "ip route add blackhole 192.0.2.5" : "ip route del blackhole 192.0.2.5", on, Conduct::Swallow);
     }},
    {"ServerKilled", Place::Server, true, true, "Connection refused",
     [](World& world, bool on) {
       world.front->setConduct(on ? Conduct::Refuse : Conduct::Pass);
       world.at(&TwoMachines::server, [&] { on ? world.server->kill() : world.server->start(); });
     }},
    {"ServerSilent", Place::Server, true, true, "the server did not take the stream within",
     serverThat<Conduct::Silent>},
    {"ServerHangsUp", Place::Server, true, true, "closed the connection during the handshake",
     serverThat<Conduct::HangUp>},
    {"NameTaken", Place::Server, true, true, "Already publishing", serverThat<Conduct::KeepName>},
    {"ServerStopsReading", Place::Server, true, false, "the server has taken nothing for",
     serverThat<Conduct::StopReading>},
    {"ServerCutsMessages", Place::Server, true, false, "the server closed the connection",
     serverThat<Conduct::CutMessages>},
    {"LinkNarrow", Place::Way, false, false, "",
     [](World& world, bool on) {  // For four streams of 0.9 Mbit/s. It delays and drops nothing, not even when it ends.
       onTheWay(world, &TwoMachines::publisher,
                on ? "tc qdisc add dev wired0 root tbf rate 2mbit burst 8kb latency 1s"
                   : "tc qdisc change dev wired0 root tbf rate 1gbit burst 1mb latency 1s",
                on, Conduct::Pass);
       world.way ? world.way->setRate(on ? 60'000 : 1e12) : void();
     }},
};

/// Two faults of different places hold at once. Those of one place cannot, or one hides the other altogether.
using Pair = std::vector<const FaultRow*>;
std::vector<Pair> pairs() {
  std::vector<Pair> all;
  for (const FaultRow& one : faults) {
    all.push_back({&one});
    for (const FaultRow* other = &one + 1; other != std::end(faults); ++other) {
      one.place != other->place ? all.push_back({&one, other}) : void();
    }
  }
  return all;
}

/// A decoder has nothing to complain about; of each kind a sequence header comes first; time never goes back, and no
/// sound is missing. The times of the first and the last frame.
std::pair<std::uint32_t, std::uint32_t> expectPlayable(const std::string& path) {
  // The picture rate that ffmpeg guesses of so short a file is no unit for its times.
  const auto decoded = runProgram({"ffmpeg", "-v", "error", "-i", path, "-enc_time_base", "1:1000", "-f", "null", "-"});
  EXPECT_EQ(decoded.errors, "") << path;
  const FlvFile file(path);
  std::set<std::uint8_t> headers;
  std::vector<std::uint32_t> times;
  std::uint32_t sound = 0;
  for (const FlvTag& tag : file.tags()) {
    if (!tag.isMedia()) {
      headers.insert(tag.type);
      continue;
    }
    EXPECT_TRUE(headers.contains(tag.type)) << path;
    EXPECT_GE(tag.timestamp, times.empty() ? 0 : times.back()) << path;
    EXPECT_TRUE(tag.type == FlvTag::Video || sound == 0 || tag.timestamp <= sound + 22) << path << ": " << sound;
    sound = tag.type == FlvTag::Audio ? tag.timestamp : sound;
    times.push_back(tag.timestamp);
  }
  EXPECT_EQ(headers.size(), 2U) << path;
  return times.empty() ? std::pair(0U, 0U) : std::pair(times.front(), times.back());
}

class Outage : public ::testing::TestWithParam<Pair> {
 protected:
  void SetUp() override {
    if (!NginxServer::available()) {
      GTEST_SKIP() << "nginx with its RTMP module is not installed; scripts/setup installs it";
    }
    world = std::make_unique<World>(std::ranges::count(GetParam(), Place::Way, &FaultRow::place) > 0);
  }
  static bool any(bool FaultRow::*what) { return std::ranges::count(GetParam(), true, what) > 0; }

  /// A session that loses patience soon and three that never would, all of them up.
  void begin() {
    for (const auto& [stream, patience] :
         {std::pair{"survivor", 700ms}, {"a", 60'000ms}, {"b", 60'000ms}, {"c", 60'000ms}}) {
      RtmpOptions limits;
      limits.resolveLimit = limits.connectLimit = limits.setupLimit = limits.sendLimit = patience;
      limits.receiveLimit = std::chrono::ceil<std::chrono::seconds>(patience);
      limits.sendBufferBytes = 8 * 1024;
      world->at(&TwoMachines::publisher, [&, &name = stream] {
        sessions.push_back(Broadcast::start(world->platform, world->url(name), limits));
      });
    }
    feed.setSessions(sessions);
    for (const auto& session : sessions) {
      ASSERT_TRUE(session->story->waitFor('K'));
    }
    feed.waitBeats(25);
  }
  void waitForEffect() {
    if (linkDown) {
      EXPECT_TRUE(story().waitFor('N'));
    } else if (broken) {
      EXPECT_TRUE(any(&FaultRow::blocks) ? story().waitFor('X') : story().waitFor('K', 3));
    }
    feed.waitBeats(25);
  }
  /// Three ways to end a session in the middle of it all.
  void endThree() {
    feed.setSessions({sessions[0]});
    const auto start = std::chrono::steady_clock::now();
    sessions[1]->stopLive();
    sessions[2]->suspendLive();
    sessions.pop_back();
    EXPECT_TRUE(sessions[1]->waitUntilStopped(2s) && sessions[2]->waitUntilStopped(2s));
    sessions.resize(1);
    EXPECT_TRUE(waitUntil([] { return threads("rtmpSendQueue") == 1; }, 2s)) << "what was ended still runs";
    EXPECT_LE(std::chrono::steady_clock::now() - start, 2s);
  }
  /// Waits until the stream is up for good.
  void recover() {
    std::string letters;
    for (int turns = 0; turns < 20 && (letters != story().letters() || letters.back() != 'K'); ++turns) {
      letters = story().letters();
      feed.waitBeats(30);
    }
    sessions[0]->stopLive();
    EXPECT_TRUE(sessions[0]->waitUntilStopped(2s));
  }
  Story& story() const { return *sessions[0]->story; }

  const bool broken = any(&FaultRow::breaks);
  const bool linkDown = GetParam()[0]->name == std::string("LinkDown");
  std::unique_ptr<World> world;
  Feed feed;
  std::vector<std::shared_ptr<Broadcast>> sessions;
};

TEST_P(Outage, IsToldAndTheStreamGoesOn) {
  const LogCapture log;
  const auto threadsBefore = threads();
  const auto filesBefore = openFiles();
  ASSERT_NO_FATAL_FAILURE(begin());
  if (broken) {
    std::filesystem::rename(world->server->recording("survivor"), world->server->recording("before"));
  }
  std::ranges::for_each(GetParam(), [&](const FaultRow* fault) { fault->set(*world, true); });
  waitForEffect();
  endThree();
  std::ranges::for_each(GetParam(), [&](const FaultRow* fault) { fault->set(*world, false); });
  recover();

  const auto after = expectPlayable(world->server->finishedRecording("survivor"));
  if (broken) {
    EXPECT_LT(expectPlayable(world->server->finishedRecording("before")).second, after.first);
  }
  auto told = story().letters();
  EXPECT_EQ(std::erase(told, 'N'), linkDown ? 1U : 0U);
  // A lost connection asks for a URL once; then come attempts, from the second on with an error each.
  const auto letters = told;
  const auto erase = [&told](const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = told.find(part)) != std::string::npos; ++found) {
      told.erase(at, part.size());
    }
    return found;
  };
  erase("REX");
  EXPECT_EQ(erase("URK") > 0, broken) << letters;
  EXPECT_EQ(told, "CKS") << letters;
  if (broken && !linkDown && !world->way) {  // Behind a relay some faults look like others.
    EXPECT_GT(log.count(LogLevel::Error, GetParam()[0]->reason), 0U) << "nothing tells the reason";
  }

  sessions.clear();
  feed.setSessions({});
  // A reset that got lost on the way leaves the server's side of a connection open.
  world->front->setConduct(Conduct::Silent);
  EXPECT_TRUE(waitUntil([&] { return threads() == threadsBefore && openFiles() == filesBefore; }, 2s))
      << threads() << " threads of " << threadsBefore << ", " << openFiles() << " files of " << filesBefore;
}

INSTANTIATE_TEST_SUITE_P(, Outage, ::testing::ValuesIn(pairs()), [](const auto& row) {
  return row.param[0]->name + (row.param.size() > 1 ? std::string("_") + row.param[1]->name : "");
});

}  // namespace
}  // namespace zellive::test
