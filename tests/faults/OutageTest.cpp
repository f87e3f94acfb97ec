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
using Clock = std::chrono::steady_clock;

enum class Place { Way, Name, Server };

struct FaultRow {
  const char* name;
  Place place;
  bool breaks;         ///< Ends a connection that is up.
  bool blocks;         ///< Lets no new one come up.
  const char* reason;  ///< Words that the log has for it.
  std::unique_ptr<Fault> (*begin)(World&);
};

template <Conduct conduct>
std::unique_ptr<Fault> serverThat(World& world) {
  const auto set = [&world](Conduct now) { world.atServer([&] { world.front->setConduct(now); }); };
  return std::make_unique<Fault>([&] { set(conduct); }, [set] { set(Conduct::Pass); });
}

/// Commands on one of the machines, or what a relay does instead.
std::unique_ptr<Fault> onTheWay(World& world, NetworkNamespace TwoMachines::*where, const char* begin, const char* end,
                                const std::function<void(bool)>& played) {
  const auto set = [=, &world](bool on) {
    if (world.machines) {
      ((*world.machines).*where).run(on ? begin : end);
    } else {
      played(on);
    }
  };
  return std::make_unique<Fault>([&] { set(true); }, [set] { set(false); });
}

constexpr const char* kHungUp = "closed the connection during the handshake";

/// Faults further up hide those further down.
const FaultRow faults[] = {
    {"LinkDown", Place::Way, true, true, "",
     [](World& world) {
       return onTheWay(world, &TwoMachines::server, "ip link set near0 down", "ip link set near0 up", [&](bool down) {
         world.way->setConduct(down ? Conduct::Swallow : Conduct::Pass);
         world.reachability->setNetworkReachabilityStatus(down ? ReachabilityStatus::NotReachable
                                                               : ReachabilityStatus::ReachableViaWiFi);
       });
     }},
    {"NameLost", Place::Name, false, true, "cannot find the host stream.test: Name or service not known",
     [](World& world) {
       return std::make_unique<Fault>([&] { world.names->lost = true; }, [&] { world.names->lost = false; });
     }},
    {"PacketsSwallowed", Place::Way, true, true, "timed out",
     [](World& world) {  // Those that come back: the server's kernel has no way to the publisher.
       return onTheWay(world, &TwoMachines::server, "ip route add blackhole 192.0.2.5",
                       "ip route del blackhole 192.0.2.5",
                       [&](bool on) { world.way->setConduct(on ? Conduct::Swallow : Conduct::Pass); });
     }},
    {"ServerKilled", Place::Server, true, true, "Connection refused",
     [](World& world) {
       const auto kill = [&] {
         world.server->kill();
         world.front->setConduct(Conduct::Refuse);
       };
       const auto start = [&world] {
         world.server->start();
         world.front->setConduct(Conduct::Pass);
       };
       return std::make_unique<Fault>([&] { world.atServer(kill); }, [&world, start] { world.atServer(start); });
     }},
    {"ServerSilent", Place::Server, true, true, "the server did not take the stream within",
     serverThat<Conduct::Silent>},
    {"ServerHangsUp", Place::Server, true, true, kHungUp, serverThat<Conduct::HangUp>},
    {"NameTaken", Place::Server, true, true, "Already publishing", serverThat<Conduct::KeepName>},
    {"ServerStopsReading", Place::Server, true, false, "the server has taken nothing for",
     serverThat<Conduct::StopReading>},
    {"ServerCutsMessages", Place::Server, true, false, "the server closed the connection",
     serverThat<Conduct::CutMessages>},
    {"LinkNarrow", Place::Way, false, false, "",
     [](World& world) {  // For four streams of 0.9 Mbit/s.
       return onTheWay(world, &TwoMachines::publisher,
                       "tc qdisc add dev wired0 root tbf rate 2mbit burst 8kb latency 200ms",
                       "tc qdisc del dev wired0 root", [&](bool on) { world.way->setRate(on ? 60'000 : 1e12); });
     }},
};

/// Two faults of different places hold at once. Those of one place cannot, or one hides the other altogether.
using Pair = std::pair<const FaultRow*, const FaultRow*>;
std::vector<Pair> pairs() {
  std::vector<Pair> all;
  for (const FaultRow& one : faults) {
    all.emplace_back(&one, nullptr);
    for (const FaultRow* other = &one + 1; other != std::end(faults); ++other) {
      if (one.place != other->place) {
        all.emplace_back(&one, other);
      }
    }
  }
  return all;
}

RtmpOptions limits(std::chrono::milliseconds each) {
  RtmpOptions options;
  options.resolveLimit = options.connectLimit = options.setupLimit = options.sendLimit = each;
  options.receiveLimit = std::chrono::ceil<std::chrono::seconds>(each);
  options.sendBufferBytes = 8 * 1024;
  return options;
}

/// A decoder has nothing to complain about, and each kind begins with its sequence header. The times of the first and
/// the last message.
std::pair<std::uint32_t, std::uint32_t> expectPlayable(const std::string& path) {
  // The picture rate that ffmpeg guesses of so short a file is no unit for its times.
  const auto decoded = runProgram({"ffmpeg", "-v", "error", "-i", path, "-enc_time_base", "1:1000", "-f", "null", "-"});
  EXPECT_EQ(decoded.errors, "") << path;
  const FlvFile file(path);
  std::set<std::uint8_t> headers;
  std::vector<std::uint32_t> times{0};
  for (const FlvTag& tag : file.tags()) {
    if (tag.isMedia()) {
      EXPECT_TRUE(headers.contains(tag.type)) << path;
      times.push_back(tag.timestamp);
    } else {
      headers.insert(tag.type);
    }
  }
  EXPECT_EQ(headers.size(), 2U) << path;
  return {times[std::min<std::size_t>(1, times.size() - 1)], times.back()};
}

/// Each connection has metadata, then headers, then frames; time never goes back; of the sound a connection lacks the
/// unit with which the former one broke and the one that became its header, and no other.
void expectInOrder(const std::vector<Tap::Message>& messages) {
  int connection = 0;
  std::set<std::uint8_t> begun;
  std::uint32_t last = 0;
  std::uint32_t sound = 0;
  std::uint32_t unitsToNext = 1;
  for (const auto& message : messages) {
    const bool fresh = message.connection != std::exchange(connection, message.connection);
    ASSERT_EQ(message.type == FlvTag::Script, fresh);
    if (fresh) {
      begun.clear();
      unitsToNext += 2;
      continue;
    }
    ASSERT_EQ(message.header, begun.insert(message.type).second);
    if (message.header) {
      continue;
    }
    ASSERT_GE(message.timestamp, last);
    last = message.timestamp;
    if (message.type == FlvTag::Audio) {
      ASSERT_TRUE(sound == 0 || last <= sound + 22 * unitsToNext) << sound << ", then " << last;
      sound = last;
      unitsToNext = 1;
    }
  }
}

class Outage : public ::testing::TestWithParam<Pair> {
 protected:
  void SetUp() override {
    if (!NginxServer::available()) {
      GTEST_SKIP() << "nginx with its RTMP module is not installed; scripts/setup installs it";
    }
    world = std::make_unique<World>(either(Place::Way));
  }

  bool either(bool FaultRow::*what) const { return one->*what || (other != nullptr && other->*what); }
  bool either(Place place) const { return one->place == place || (other != nullptr && other->place == place); }

  /// A session that loses patience soon and three that never would, all of them up.
  void begin() {
    for (const auto& [stream, patience] : {std::pair<const char*, std::chrono::milliseconds>{"survivor", 700ms},
                                           {"stops", 60s},
                                           {"suspends", 60s},
                                           {"dies", 60s}}) {
      world->atPublisher(
          [&] { sessions.push_back(Broadcast::start(world->platform, world->url(stream), limits(patience))); });
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
      EXPECT_TRUE(either(&FaultRow::blocks) ? story().waitFor('X') : story().waitFor('K', 3));
    }
    feed.waitBeats(25);
  }
  /// Three ways to end a session in the middle of it all.
  void endThree() {
    feed.setSessions({sessions[0]});
    const auto start = Clock::now();
    sessions[1]->stopLive();
    sessions[2]->suspendLive();
    sessions.pop_back();
    EXPECT_TRUE(sessions[1]->waitUntilStopped(2s) && sessions[2]->waitUntilStopped(2s));
    sessions.resize(1);
    EXPECT_TRUE(waitUntil([] { return threads("rtmpSendQueue") == 1; }, 2s)) << "what was ended still runs";
    EXPECT_LE(Clock::now() - start, 2s);
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

  const FaultRow* const one = GetParam().first;
  const FaultRow* const other = GetParam().second;
  const bool broken = either(&FaultRow::breaks);
  const bool linkDown = one->name == std::string("LinkDown");
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
  {
    const auto first = one->begin(*world);
    const auto second = other != nullptr ? other->begin(*world) : nullptr;
    waitForEffect();
    endThree();
  }
  recover();

  expectInOrder(sessions[0]->tap->take());
  const auto after = expectPlayable(world->server->finishedRecording("survivor"));
  if (broken) {
    EXPECT_LT(expectPlayable(world->server->finishedRecording("before")).second, after.first);
  }
  auto told = story().letters();
  EXPECT_EQ(std::erase(told, 'N'), linkDown ? 1U : 0U);
  // A lost connection asks for a URL once; then come attempts, from the second on with an error each.
  const auto replaceAll = [&told](const std::string& part, const char* with) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = told.find(part)) != std::string::npos; ++found) {
      told.replace(at, part.size(), with);
    }
    return found;
  };
  const auto letters = told;
  replaceAll("REXR", "R");
  EXPECT_EQ(replaceAll("URK", "") > 0, broken) << letters;
  EXPECT_EQ(told, "CKS") << letters;
  if (broken && !linkDown) {
    // Behind a relay, a server that is not there looks like one that hangs up.
    const bool relayed = one->name == std::string("ServerKilled") && world->way;
    EXPECT_GT(log.count(LogLevel::Error, relayed ? kHungUp : one->reason), 0U) << "nothing tells the reason";
  }

  sessions.clear();
  feed.setSessions({});
  // A reset that got lost on the way leaves the server's side of a connection open.
  world->atServer([&] { world->front->setConduct(Conduct::Silent); });
  EXPECT_TRUE(waitUntil([&] { return threads() == threadsBefore && openFiles() == filesBefore; }, 2s))
      << threads() << " threads of " << threadsBefore << ", " << openFiles() << " files of " << filesBefore;
}

std::string nameOf(const ::testing::TestParamInfo<Pair>& info) {
  return info.param.first->name + (info.param.second != nullptr ? std::string("_") + info.param.second->name : "");
}
INSTANTIATE_TEST_SUITE_P(, Outage, ::testing::ValuesIn(pairs()), nameOf);

}  // namespace
}  // namespace zellive::test
