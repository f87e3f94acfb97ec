#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/FakeRtmp.h"
#include "tests/support/ManualPlatform.h"
#include "tests/transport/Fixtures.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kUrl = "rtmp://host/live/key";

Bytes filled(std::size_t size) { return Bytes(size, 0x55); }

class Publisher : public ::testing::Test {
 protected:
  ~Publisher() override {
    socket.reset();
    manual.runPending();
  }

  void make(std::int64_t interval = 0, std::int64_t count = 0) {
    socket = ZelStreamRtmpSocket::create(info, interval, count, manual.platform(), rtmp.factory());
    socket->setDelegate(reports);
  }
  /// A connected publisher, in whose sorting stage five frames stay for good, so that every later one comes out at
  /// once.
  void connect() {
    make();
    socket->start();
    fillSorter();
    reports->events.clear();
  }
  void send(std::initializer_list<std::shared_ptr<const ZelFrame>> frames) {
    for (const auto& frame : frames) {
      socket->sendFrame(frame);
    }
    manual.runPending();
  }
  void fillSorter() {
    const auto late = audio(1'000'000'000);
    send({late, late, late, late, late});
  }
  /// Forgets the publisher and everything that it did.
  void renew() {
    socket.reset();
    manual.advance(1s);
    rtmp = {};
    reports = std::make_shared<Reports>();
  }
  using Events = std::vector<std::string>;
  /// What was reported since the last call, and is then.
  Events eventsAfter(std::chrono::seconds time) {
    manual.advance(time);
    return std::exchange(reports->events, {});
  }
  void network(ReachabilityStatus status) { manual.reachability->setNetworkReachabilityStatus(status); }

  ManualPlatform manual;
  LogCapture log;
  FakeRtmp rtmp;
  std::shared_ptr<Reports> reports = std::make_shared<Reports>();
  std::shared_ptr<ZelLiveStreamInfo> info = [] {
    auto stream = streamAt(kUrl);
    stream->streamId = "stream-7";
    stream->roomId = "room-9";
    return stream;
  }();
  std::shared_ptr<ZelStreamRtmpSocket> socket;
};

TEST_F(Publisher, RefusesAMissingStreamAndMendsItsLimits) {
  const auto none = std::exchange(info, nullptr);
  EXPECT_THAT([this] { make(); },
              ::testing::ThrowsMessage<ZelException>("ZelStreamRtmpSocket init error: stream is nil"));
  info = none;
  make(-1, 0);
  EXPECT_EQ(std::pair(socket->reconnectInterval(), socket->reconnectCount()), std::pair(5L, 3L));
  make(2, 9);
  EXPECT_EQ(std::pair(socket->reconnectInterval(), socket->reconnectCount()), std::pair(2L, 9L));
}

TEST_F(Publisher, ConnectsAndDescribesTheStreamFirst) {
  make();
  fillSorter();
  send({video(1)});
  EXPECT_TRUE(rtmp.sent.empty()) << "frames wait for the start";
  socket->start();
  socket->start();
  manual.runPending();
  EXPECT_EQ(eventsAfter(0s), (Events{"status 1", "status 2"}));
  EXPECT_EQ(rtmp.urls, (std::vector<std::string>{kUrl}));
  ASSERT_EQ(rtmp.sent.size(), 2U) << "the connection itself sets the waiting frame going";
  EXPECT_EQ(rtmp.sent[0].type, 0x12);
  EXPECT_TRUE(rtmp.sent[0].absoluteTimestamp);
  EXPECT_EQ(rtmp.sent[1].type, 9);
}

TEST_F(Publisher, BoundsTheKernelsBufferByTheStreamsRate) {
  info->videoConfiguration = ZelLiveVideoConfiguration::defaultConfiguration();
  for (const auto& [rate, size] :
       {std::pair(0, 65536U), std::pair(3'000'000, 187500U), std::pair(80'000'000, 524288U)}) {
    info->videoConfiguration->setVideoBitRate(static_cast<std::uint64_t>(rate));
    connect();
    EXPECT_EQ(rtmp.options.back().sendBufferBytes, size);
  }
}

TEST_F(Publisher, SpendsTheFirstFrameOfEachKindOnItsHeader) {
  struct Case {
    const char* name;
    std::vector<std::shared_ptr<const ZelFrame>> frames;
    std::vector<std::pair<std::uint8_t, Bytes>> sent;  // Header type and body.
  };
  const Bytes avcHeader{0x17, 0, 0, 0, 0, 1, 0x64, 0, 0x1F, 0xFF, 0xE1, 0, 4, 0x67, 0x64, 0, 0x1F, 1, 0, 2, 0x68, 0xEE};
  const Bytes aacHeader{0xAF, 0, 0x11, 0x88};
  const Bytes inter{0x27, 1, 0, 0, 0, 0, 0, 0, 1, 0x41};
  const VideoParts interFrame{false, {0x41}};
  const std::vector<Case> cases{
      {"key picture", {video(1), video(2)}, {{0, avcHeader}, {0, {0x17, 1, 0, 0, 0, 0, 0, 0, 2, 0x65, 1}}}},
      {"SEI ahead and between",
       {video(1, {true, {6, 1}}), video(2), video(2, {true, {6, 1}}), video(2, interFrame)},
       {{0, avcHeader}, {0, {0x17, 1, 0, 0, 0, 0, 0, 0, 2, 0x65, 1}}, {0, inter}}},
      {"sets on a predicted picture", {video(1, interFrame), video(2, interFrame)}, {{0, avcHeader}, {0, inter}}},
      {"no PPS", {video(1, {true, {9}, {0x67, 1, 2, 3}, {}}), video(2, interFrame)}, {{0, inter}}},
      {"oversized SPS", {video(1, {true, {9}, filled(1007)}), video(2, interFrame)}, {{0, inter}}},
      {"stunted SPS", {video(1, {true, {9}, filled(3)}), video(2, interFrame)}, {{0, inter}}},
      {"sound", {audio(1), audio(2)}, {{0, aacHeader}, {1, {0xAF, 1, 1, 2, 3, 4}}}},
      {"sound of two bytes", {audio(1), audio(2, {1, 2})}, {{0, aacHeader}, {0, {0xAF, 1, 1, 2}}}},
      {"no AudioSpecificConfig", {audio(1, {1}, {}), audio(2, {1})}, {{1, {0xAF, 1, 1}}}},
      {"neither kind", {std::make_shared<ZelFrame>(), audio(2, {1})}, {{1, {0xAF, 1, 1}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    rtmp.sent.clear();
    connect();
    for (const auto& frame : c.frames) {
      send({frame});
    }
    std::vector<std::pair<std::uint8_t, Bytes>> sent;
    for (const auto& message : rtmp.media()) {
      sent.emplace_back(message.headerType, message.body);
      EXPECT_EQ(message.channel, 4);
      EXPECT_EQ(message.streamId, 7);
      const bool header = message.body == avcHeader || message.body == aacHeader;
      EXPECT_EQ(message.timestamp, header ? 0U : 2U);
    }
    EXPECT_EQ(sent, c.sent);
  }
  EXPECT_EQ(log.count(LogLevel::Error, "parameter sets of"), 2U);
  rtmp.sent.clear();
  connect();
  send({video(1, {true, {9}, filled(1006)})});
  ASSERT_EQ(rtmp.media().size(), 1U);
  EXPECT_EQ(rtmp.media()[0].body.size(), 1024U) << "the largest sets";
}

TEST_F(Publisher, ReportsExhaustedAttemptsAndGoesOn) {
  for (const char* step : {"RTMP_SetupURL", "RTMP_Connect", "RTMP_ConnectStream"}) {
    SCOPED_TRACE(step);
    renew();
    rtmp.failAt = step;
    make();
    socket->start();
    EXPECT_EQ(eventsAfter(0s), (Events{"status 1", "url"}));
    EXPECT_EQ(eventsAfter(5s), (Events{"status 5"}));
    EXPECT_EQ(eventsAfter(5s), (Events{"status 5", "status 4", "error 205"}));
    EXPECT_EQ(eventsAfter(5s), (Events{"status 5", "status 4", "error 205"}));
    EXPECT_EQ(rtmp.closed, 4);
    rtmp.failAt = "";
    EXPECT_EQ(eventsAfter(5s), (Events{"status 5", "status 2"}));
    rtmp.breakConnection({-8, "gone"});
    EXPECT_EQ(eventsAfter(0s), (Events{"url"})) << "counted from 0 again";
    EXPECT_EQ(log.count(LogLevel::Error, std::string("Live: ") + step + "() failed"), 4U);
  }
  EXPECT_EQ(log.count(LogLevel::Error, "Live: RTMP connect error -8 message gone"), 3U);
}

TEST_F(Publisher, AsksForAUrlEveryHundredthAttempt) {
  rtmp.failAt = "RTMP_SetupURL";
  make(1, 1000);
  socket->start();
  std::vector<int> askedBefore;
  for (int attempt = 1; attempt <= 202; ++attempt) {
    manual.advance(attempt == 1 ? 0s : 1s);
    if (std::ranges::count(eventsAfter(0s), "url") > 0) {
      askedBefore.push_back(attempt);
    }
  }
  EXPECT_EQ(rtmp.urls.size(), 202U);
  EXPECT_EQ(askedBefore, (std::vector<int>{1, 101, 201}));
}

TEST_F(Publisher, OneAttemptServesSeveralErrors) {
  connect();
  rtmp.breakConnection({-8, "first"});
  rtmp.breakConnection({-8, "second"});
  rtmp.breakConnection({0, "no failure"});
  auto fresh = streamAt("rtmp://other/live/key");
  fresh->streamId = "ignored";
  socket->updateStreamInfo(fresh);
  socket->updateStreamInfo(nullptr);
  EXPECT_EQ(eventsAfter(60s), (Events{"url", "status 5", "status 2"}));
  EXPECT_EQ(rtmp.urls, (std::vector<std::string>{kUrl, "rtmp://other/live/key"}));
  EXPECT_EQ(rtmp.closed, 1);
  EXPECT_EQ(info->streamId, "stream-7");
}

TEST_F(Publisher, AFailedSendLeadsToANewConnectionWithNewHeaders) {
  connect();
  send({video(1), audio(2), video(3)});
  rtmp.sendResult = 0;
  send({video(4), video(5), audio(6), video(7)});
  EXPECT_EQ(log.count(LogLevel::Error, "Live: send packet error: 0"), 1U) << "the frames behind it wait";
  rtmp.sendResult = 1;
  rtmp.sent.clear();
  EXPECT_EQ(eventsAfter(5s).back(), "status 2");
  ASSERT_EQ(rtmp.sent.size(), 4U);
  EXPECT_EQ(rtmp.sent[0].type, 0x12);
  EXPECT_EQ(rtmp.sent[1].body[1], 0) << "AVC header, of the frame at 5";
  EXPECT_EQ(rtmp.sent[2].body[1], 0) << "AAC header";
  EXPECT_EQ(rtmp.sent[3].timestamp, 7U);
}

TEST_F(Publisher, AConnectionThatBreaksAtOnceCostsNoFrame) {
  make();
  fillSorter();
  rtmp.sendResult = 0;
  socket->start();
  send({video(1), audio(2)});
  EXPECT_TRUE(rtmp.media().empty());
  EXPECT_EQ(log.count("Live: send packet error"), 0U);
  rtmp.sendResult = 1;
  EXPECT_EQ(eventsAfter(5s).back(), "status 2");
  EXPECT_EQ(rtmp.media().size(), 2U);
}

TEST_F(Publisher, FollowsTheNetwork) {
  make();
  network(ReachabilityStatus::ReachableViaWWAN);
  EXPECT_EQ(eventsAfter(10s), Events{}) << "nothing was started";
  socket->start();
  fillSorter();
  eventsAfter(0s);
  network(ReachabilityStatus::ReachableViaWiFi);
  EXPECT_EQ(eventsAfter(10s), (Events{"url", "status 5", "status 2"})) << "even a healthy connection is made anew";
  EXPECT_EQ(rtmp.closed, 1);
  network(ReachabilityStatus::NotReachable);
  EXPECT_EQ(std::exchange(reports->events, {}), (Events{"error 203"})) << "at once, on the posting thread";
  send({video(1), video(2)});
  rtmp.breakConnection({-8, "gone"});
  EXPECT_EQ(eventsAfter(4s), Events{}) << "asked for while the network is out: dropped";
  EXPECT_TRUE(rtmp.media().empty());
  network(ReachabilityStatus::ReachableViaWiFi);
  network(ReachabilityStatus::ReachableViaWWAN);
  EXPECT_EQ(eventsAfter(5s), (Events{"url", "status 5", "status 2"}));
  EXPECT_EQ(rtmp.media().size(), 2U);
  EXPECT_EQ(log.count("Live: net reachabilityChange 2"), 2U);
}

TEST_F(Publisher, CountsWhatItSends) {
  connect();
  const auto& statistics = reports->statistics;
  send({video(1, {true, filled(1000)})});  // The first frame closes the interval that began at time 0.
  ASSERT_EQ(statistics.size(), 1U);
  EXPECT_EQ(statistics[0].roomID + " " + statistics[0].streamID, "room-9 stream-7");
  EXPECT_EQ(statistics[0].uploadUrl, kUrl);
  EXPECT_TRUE(statistics[0].isRtmp);
  manual.advance(999ms);
  send({video(2, {true, filled(500)}), video(3, {true, filled(400)}), audio(4, filled(30))});
  EXPECT_EQ(statistics.size(), 1U);
  manual.advance(1ms);
  send({audio(5, filled(7))});
  ASSERT_EQ(statistics.size(), 2U);
  const auto& total = statistics[1];
  EXPECT_EQ(total.elapsedMilli, 1000.0);
  EXPECT_EQ(total.currentBandwidth, 930.0) << "without the frame that closes the interval";
  EXPECT_EQ((std::vector{total.dataFlow, total.videoDataFlow, total.audioDataFlow}),
            (std::vector{1937.0, 1900.0, 37.0}));
  EXPECT_EQ((std::vector{total.totalFrame, total.captureVideoTotalCount, total.captureAudioTotalCount,
                         total.currentCaptureVideoCount, total.currentCaptureAudioCount, total.dropFrame}),
            (std::vector<std::int64_t>{5, 3, 2, 2, 1, 0}));
  socket->stop();
  manual.runPending();
  EXPECT_EQ(log.count("Live: socket traffic: dropFrame:0 unsendFrame:0 senfFrame:5(a:2, v:3)"), 1U);
  EXPECT_EQ(log.count("liveTime:1.000000"), 1U);
}

TEST_F(Publisher, PassesOnWhatItsBufferTellsAndDrops) {
  make();
  fillSorter();
  manual.advance(5s);
  EXPECT_EQ(reports->trends, (std::vector<ZelStreamingBufferState>{ZelStreamingBufferStateDecrease}));
  EXPECT_EQ(reports->counts, (std::vector<std::uint64_t>{0}));
  send({video(1), video(2, {false})});
  manual.notifications->post(notification::DidReceiveMemoryWarning);
  socket->start();
  send({audio(3)});
  ASSERT_EQ(reports->statistics.size(), 1U);
  EXPECT_EQ(reports->statistics[0].dropFrame, 2);
}

TEST_F(Publisher, StopsInEveryState) {
  enum State { Fresh, Started, Connected, Broken };
  for (const State state : {Fresh, Started, Connected, Broken}) {
    SCOPED_TRACE(state);
    renew();
    make();
    fillSorter();
    if (state >= Started) {
      socket->start();
    }
    if (state >= Connected) {
      manual.runPending();
    }
    if (state == Broken) {
      rtmp.breakConnection({-8, "gone"});
      manual.runPending();
    }
    reports->events.clear();
    socket->stop();
    socket->stop();
    EXPECT_FALSE(socket->waitUntilStopped(0ms));
    manual.runPending();
    EXPECT_TRUE(socket->waitUntilStopped(0ms));
    EXPECT_EQ(std::ranges::count(reports->events, "status 3"), 1);
    EXPECT_EQ(rtmp.aborted, state == Started ? 1 : 0);
    EXPECT_EQ(rtmp.closed, state == Fresh ? 0 : 1);
    EXPECT_EQ(manual.time->delayedWork(), 1U) << "the buffer's timer alone";
    rtmp.sent.clear();
    reports->events.clear();
    send({video(1), video(2)});
    socket->start();
    network(ReachabilityStatus::ReachableViaWWAN);
    network(ReachabilityStatus::ReachableViaWiFi);
    manual.advance(4s);
    EXPECT_EQ(eventsAfter(0s), Events{});
    EXPECT_TRUE(rtmp.sent.empty());
    EXPECT_EQ(log.count(LogLevel::Error, "Live: RTMP_"), 0U) << "an attempt given up for the stop is no error";
  }
}

TEST_F(Publisher, EndsWithItsOwner) {
  connect();
  send({video(1)});
  rtmp.breakConnection({-8, "gone"});
  manual.runPending();
  eventsAfter(0s);
  socket.reset();
  manual.runPending();
  EXPECT_EQ(rtmp.closed, 1);
  EXPECT_EQ(eventsAfter(60s), Events{});
  EXPECT_EQ(manual.time->liveQueues(), (std::vector<std::string>{"main", "global"}));
  EXPECT_EQ(log.count("Live: dealloc <ZelStreamRtmpSocket"), 1U);

  make();
  socket->start();
  socket.reset();
  EXPECT_EQ(eventsAfter(60s), Events{});
}

}  // namespace
}  // namespace zellive::test
