#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "tests/faults/Broadcast.h"
#include "tests/faults/World.h"

namespace zellive::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kRounds = 20;
constexpr bool kOwnAllocator = false;
#else
constexpr int kRounds = 200;
constexpr bool kOwnAllocator = true;
#endif

TEST(Endurance, KillsAndRestartsOfAServerLeaveNothingBehind) {
  if (!NginxServer::available()) {
    GTEST_SKIP() << "nginx with its RTMP module is not installed; scripts/setup installs it";
  }
  setLogHandler([](LogLevel, std::string_view, int, std::string_view) {});
  const char* wanted = std::getenv("ZELLIVE_FAULT_ROUNDS");
  const int rounds = wanted != nullptr ? std::atoi(wanted) : kRounds;
  World world(false);
  Feed feed;
  const auto session = Broadcast::start(world.platform, world.server->url("again"), {});
  /// What the process has when nothing is on its way.
  struct Holdings {
    std::size_t bytes;  ///< Allocated and not freed.
    std::size_t pages;  ///< Resident.
    int threads;
    std::ptrdiff_t files;
  };
  const auto holdings = [&] {
    feed.setSessions({});
    EXPECT_TRUE(waitUntil([&] { return *session->queued == ZelStreamingBuffer::sortCount; }, 20s)) << "frames are kept";
    malloc_trim(0);  // Otherwise free memory counts as well.
    const auto used = mallinfo2();
    std::size_t size = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return Holdings{used.uordblks + used.hblkhd, resident, threads(), openFiles()};
  };
  Holdings tenth{};
  for (int round = 1; round <= rounds; ++round) {
    feed.setSessions({session});
    ASSERT_TRUE(session->story->waitFor('K', round)) << round;
    feed.waitBeats(4);
    if (round == 10) {
      tenth = holdings();
    }
    if (round < rounds) {
      world.server->kill();
      world.server->start();
    }
  }
  const auto last = holdings();
  std::printf("rounds 10 and %d: %zu and %zu bytes allocated, %zu and %zu pages resident\n", rounds, tenth.bytes,
              last.bytes, tenth.pages, last.pages);
  EXPECT_EQ(last.threads, tenth.threads);
  EXPECT_EQ(last.files, tenth.files);
  if (kOwnAllocator) {
    EXPECT_LE(last.bytes, tenth.bytes + tenth.bytes / 50);
    EXPECT_LE(last.pages, tenth.pages + tenth.pages / 50);
  }
  setLogHandler({});
}

}  // namespace
}  // namespace zellive::test
