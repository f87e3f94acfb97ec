#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <tuple>

#include "tests/faults/World.h"
#include "tests/support/WireServer.h"
#include "tests/transport/Fixtures.h"

// What an outage costs, and how soon it is over.

namespace zellive::test {
namespace {

using Clock = std::chrono::steady_clock;

double processSeconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

/// Frame `index` of a stream with 24 pictures, one of them a key frame, to 47 units of sound a second.
Frame frameAt(std::uint64_t index) {
  constexpr std::uint64_t perSecond = 71;
  const std::uint64_t time = index * 1000 / perSecond;
  return index * 24 / perSecond != (index + 1) * 24 / perSecond
             ? video(time, {index / perSecond != (index + 3) / perSecond, Bytes(4000, 0x41)})
             : audio(time, Bytes(340, 1));
}

class Pacing : public ::testing::Test {
 protected:
  struct TimedReports : Reports {
    void socketStatus(ZelStreamRtmpSocket& socket, std::uint64_t status) override {
      connected = status == ZelStreamSocketStatusConnected ? Clock::now() : connected.load();
      Reports::socketStatus(socket, status);
    }
    std::atomic<Clock::time_point> connected;
  };
  void start(const std::shared_ptr<const Platform>& platform) {
    relay.setConduct(Relay::Conduct::Refuse);
    socket = ZelStreamRtmpSocket::create(streamAt("rtmp://127.0.0.1:" + std::to_string(relay.port()) + "/live/key"), 1,
                                         3, platform);
    socket->setDelegate(reports);
    socket->start();
  }

  const LogCapture quiet;
  WireServer server;
  Relay relay{server.port()};
  const std::shared_ptr<TimedReports> reports = std::make_shared<TimedReports>();
  std::shared_ptr<ZelStreamRtmpSocket> socket;
};

TEST_F(Pacing, AnOutageCostsNextToNothingAndTheQueueComesOutInOrder) {
  constexpr auto length = 30s;
  constexpr std::uint64_t frames = 30 * 71;
  start(defaultPlatform());
  // The queue alone, and what it keeps of this; no further frame wakes the publisher.
  const auto alone = ZelStreamingBuffer::create(nullptr, nullptr, defaultPlatform());
  const auto begin = Clock::now();
  const double before = processSeconds();
  for (std::uint64_t index = 0; index < frames; ++index) {
    socket->sendFrame(frameAt(index));
    alone->appendObject(frameAt(index));
    std::this_thread::sleep_until(begin + length * index / frames);
  }
  const double share = (processSeconds() - before) / std::chrono::duration<double>(Clock::now() - begin).count();
  std::printf("an outage of 30 s: %.2f %% of a core, frames pushed and attempts made each second\n", share * 100);
  EXPECT_LT(share, 0.02);

  using Sent = std::tuple<int, bool, std::uint64_t>;
  std::vector<Sent> expected;
  bool headers[2] = {true, true};
  while (const auto frame = alone->popFirstObject()) {
    const bool picture = frame->kind() == ZelFrameKind::Video;
    const bool header = std::exchange(headers[picture ? 1 : 0], false);
    expected.emplace_back(picture ? 9 : 8, header, header ? 0 : frame->timestamp);
  }
  ASSERT_LT(expected.size(), frames - ZelStreamingBuffer::sortCount) << "some have expired";
  relay.setConduct(Relay::Conduct::Pass);
  ASSERT_TRUE(server.waitForMedia(expected.size() + 1));
  std::vector<Sent> sent;
  for (const auto& message : server.media()) {
    message.type != 18 ? void(sent.emplace_back(message.type, message.isSequenceHeader(), message.timestamp)) : void();
  }
  EXPECT_EQ(sent, expected);
}

TEST_F(Pacing, TheFirstMessageFollowsTheConnectionAtOnce) {
  constexpr std::size_t rounds = 25;
  auto hurried = std::make_shared<Platform>(*defaultPlatform());
  hurried->queues = std::make_shared<HurriedQueues>();
  start(hurried);
  std::vector<double> delays;
  for (std::size_t round = 0; round < rounds; ++round) {
    relay.setConduct(Relay::Conduct::Refuse);
    ASSERT_TRUE(reports->waitFor('U', static_cast<std::ptrdiff_t>(round) + 1)) << "else they may leave for nowhere";
    ASSERT_TRUE(server.waitForEnd());
    const auto former = server.media().size();
    for (std::uint64_t index = 0; index < 71; ++index) {
      socket->sendFrame(frameAt(round * 71 + index));
    }
    relay.setConduct(Relay::Conduct::Pass);
    ASSERT_TRUE(server.waitForMedia(former + 2));  // Behind the metadata.
    const auto media = server.media();
    EXPECT_TRUE(media[former].type == 18 && media[former + 1].isSequenceHeader());
    const auto taken = media[former + 1].arrival - reports->connected.load();
    delays.push_back(std::chrono::duration<double, std::milli>(taken).count());
  }
  std::ranges::sort(delays);
  std::printf("from the connection to the first message at the server: median %.2f ms, most %.2f ms\n",
              delays[rounds / 2], delays.back());
  EXPECT_LE(delays[rounds / 2], 20);
}

}  // namespace
}  // namespace zellive::test
