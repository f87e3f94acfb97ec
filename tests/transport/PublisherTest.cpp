#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/FakeRtmp.h"
#include "tests/support/ManualPlatform.h"
#include "tests/support/NetworkText.h"
#include "tests/transport/Fixtures.h"
#include "zellive/platform/linux/NetlinkReachability.h"
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

  /// A publisher in whose sorting stage five frames stay for good, so that every later one comes out at once. Nothing
  /// is left of a former one.
  void make(std::int64_t interval = 0, std::int64_t count = 0, std::shared_ptr<const Platform> platform = nullptr) {
    socket.reset();
    manual.advance(1s);
    rtmp = {};
    reports = std::make_shared<Reports>();
    socket =
        ZelStreamRtmpSocket::create(info, interval, count, platform ? platform : manual.platform(), rtmp.factory());
    socket->setDelegate(reports);
    send({5, audio(~0ULL)});
  }
  void connect() {
    make();
    socket->start();
    told(0s);
  }
  void send(const std::vector<std::shared_ptr<const ZelFrame>>& frames) {
    for (const auto& frame : frames) {
      socket->sendFrame(frame);
    }
    manual.runPending();
  }
  /// What was reported since the last call, and is then.
  std::string told(std::chrono::seconds time) {
    manual.advance(time);
    return reports->take();
  }
  void network(ReachabilityStatus status) { manual.reachability->setNetworkReachabilityStatus(status); }
  void breakConnection() { rtmp.breakConnection({RtmpFailureClosed, "gone"}); }

  ManualPlatform manual;
  LogCapture log;
  FakeRtmp rtmp;
  std::shared_ptr<Reports> reports;
  const std::shared_ptr<ZelLiveStreamInfo> info = [] {
    auto stream = streamAt(kUrl);
    stream->streamId = "stream-7";
    stream->roomId = "room-9";
    return stream;
  }();
  std::shared_ptr<ZelStreamRtmpSocket> socket;
};

TEST_F(Publisher, SpendsTheFirstFrameOfEachKindOnItsHeader) {
  struct Case {
    const char* name;
    std::vector<std::shared_ptr<const ZelFrame>> frames;
    std::vector<std::pair<std::uint8_t, Bytes>> sent;  // Header type and body.
  };
  const Bytes avcHeader{0x17, 0, 0, 0, 0, 1, 0x64, 0, 0x1F, 0xFF, 0xE1, 0, 4, 0x67, 0x64, 0, 0x1F, 1, 0, 2, 0x68, 0xEE};
  const Bytes aacHeader{0xAF, 0, 0x11, 0x88};
  const Bytes key{0x17, 1, 0, 0, 0, 0, 0, 0, 2, 0x65, 1};
  const Bytes inter{0x27, 1, 0, 0, 0, 0, 0, 0, 1, 0x41};
  const VideoParts interFrame{false, {0x41}};
  const VideoParts sei{true, {6, 1}};
  const auto last = video(2, interFrame);
  const std::vector<Case> cases{
      {"SEI ahead and between", {video(1, sei), video(2), video(2, sei), last}, {{0, avcHeader}, {0, key}, {0, inter}}},
      {"sets on a predicted picture", {video(1, interFrame), last}, {{0, avcHeader}, {0, inter}}},
      {"no PPS", {video(1, {true, {9}, {0x67, 1, 2, 3}, {}}), last}, {{0, inter}}},
      {"oversized SPS", {video(1, {true, {9}, filled(1007)}), last}, {{0, inter}}},
      {"stunted SPS", {video(1, {true, {9}, filled(3)}), last}, {{0, inter}}},
      {"sound of two bytes", {audio(1), audio(2, {1, 2})}, {{0, aacHeader}, {0, {0xAF, 1, 1, 2}}}},
      {"no AudioSpecificConfig", {audio(1, {1}, {}), audio(2, {1})}, {{1, {0xAF, 1, 1}}}},
      {"neither kind", {std::make_shared<ZelFrame>(), audio(2, {1})}, {{1, {0xAF, 1, 1}}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    connect();
    send(c.frames);
    std::vector<std::pair<std::uint8_t, Bytes>> sent;
    for (const auto& message : rtmp.media()) {
      sent.emplace_back(message.headerType, message.body);
      EXPECT_EQ(message.channel, 4);
      EXPECT_EQ(message.streamId, 7);
      EXPECT_EQ(message.timestamp, message.body == avcHeader || message.body == aacHeader ? 0U : 2U);
    }
    EXPECT_EQ(sent, c.sent);
  }
  EXPECT_EQ(log.count(LogLevel::Error, "parameter sets of"), 2U);
  connect();
  send({video(1, {true, {9}, filled(1006)})});
  ASSERT_EQ(rtmp.media().size(), 1U);
  EXPECT_EQ(rtmp.media()[0].body.size(), 1024U) << "the largest sets";
}

TEST_F(Publisher, ReportsExhaustedAttemptsAndGoesOn) {
  for (const char* step : {"RTMP_SetupURL", "RTMP_Connect", "RTMP_ConnectStream"}) {
    SCOPED_TRACE(step);
    make();
    rtmp.failAt = step;
    socket->start();
    EXPECT_EQ(told(0s), "CU");
    EXPECT_EQ(told(5s), "R");
    EXPECT_EQ(told(5s), "REX");
    EXPECT_EQ(told(5s), "REX");
    EXPECT_EQ(rtmp.closed, 4);
    rtmp.failAt = "";
    EXPECT_EQ(told(5s), "RK");
    breakConnection();
    breakConnection();
    breakConnection();
    rtmp.breakConnection({0, "no failure"});
    auto fresh = streamAt("rtmp://other/live/key");
    fresh->streamId = "ignored";
    socket->updateStreamInfo(fresh);
    socket->updateStreamInfo(nullptr);
    EXPECT_EQ(told(60s), "URK") << "counted from 0, one attempt for all";
    EXPECT_EQ(rtmp.urls.back(), "rtmp://other/live/key");
    EXPECT_EQ(rtmp.closed, 5);
    EXPECT_EQ(log.count(LogLevel::Error, std::string("Live: ") + step + "() failed"), 4U);
  }
  EXPECT_EQ(log.count(LogLevel::Error, "Live: RTMP connect error -8 message gone"), 9U);
  EXPECT_EQ(info->streamId, "stream-7");
}

TEST_F(Publisher, TriesAtOnceWhenStartedAgain) {
  make();
  rtmp.failAt = "RTMP_Connect";
  socket->start();
  EXPECT_EQ(told(1s), "CU");
  rtmp.failAt = "";
  socket->start();
  EXPECT_EQ(told(60s), "CK") << "the planned attempt has nothing left to do";
}

TEST_F(Publisher, TellsNothingOnceItIsLetGo) {
  struct Releasing : Reports {
    explicit Releasing(std::shared_ptr<ZelStreamRtmpSocket>& held) : socket(held) {}
    void socketRequestNewUrl(ZelStreamRtmpSocket&) override { socket.reset(); }
    std::shared_ptr<ZelStreamRtmpSocket>& socket;
  };
  make(1, 1);
  socket->setDelegate(reports = std::make_shared<Releasing>(socket));
  rtmp.failAt = "RTMP_Connect";
  socket->start();
  EXPECT_EQ(told(60s), "C") << "neither an error nor a further attempt";
}

TEST_F(Publisher, AsksForAUrlEveryHundredthAttempt) {
  EXPECT_THAT([] { (void)ZelStreamRtmpSocket::create(nullptr); },
              ::testing::ThrowsMessage<ZelException>("ZelStreamRtmpSocket init error: stream is nil"));
  make(1, 1000);
  rtmp.failAt = "RTMP_SetupURL";
  socket->start();
  std::vector<std::size_t> asked;
  for (auto events = told(0s); rtmp.urls.size() < 202; events = told(1s)) {
    if (std::ranges::count(events, 'U') > 0) {
      asked.push_back(rtmp.urls.size());
    }
  }
  EXPECT_EQ(asked, (std::vector<std::size_t>{1, 101, 201}));
}

TEST_F(Publisher, ANewConnectionBeginsWithNewHeaders) {
  connect();
  send({video(1), audio(2), video(3)});
  rtmp.sendResult = 0;
  send({video(4), video(5), audio(6), video((1ULL << 33) + (1 << 25))});
  EXPECT_EQ(log.count(LogLevel::Error, "Live: send packet error: 0"), 1U) << "the frames behind it wait";
  EXPECT_EQ(told(5s), "URKU");
  EXPECT_EQ(log.count("Live: send packet error"), 1U) << "it broke again at once, which costs no frame";
  rtmp.sendResult = 1;
  rtmp.sent.clear();
  EXPECT_EQ(told(5s), "RK");
  ASSERT_EQ(rtmp.sent.size(), 4U);
  EXPECT_EQ(rtmp.sent[0].type, 0x12);
  EXPECT_EQ(rtmp.sent[1].body[1], 0) << "AVC header, of the frame at 5";
  EXPECT_EQ(rtmp.sent[2].body[1], 0) << "AAC header";
  EXPECT_EQ(rtmp.sent[3].timestamp, 1U << 25) << "modulo 2^32";
}

TEST_F(Publisher, KeepsFramesWhileTheNetworkIsOut) {
  make();
  network(ReachabilityStatus::ReachableViaWWAN);
  EXPECT_EQ(told(10s), "") << "nothing was started";
  socket->start();
  told(0s);
  network(ReachabilityStatus::NotReachable);
  EXPECT_EQ(reports->take(), "N") << "at once, on the posting thread";
  send({video(1), video(2)});
  breakConnection();
  EXPECT_EQ(told(4s), "") << "asked for while the network is out: dropped";
  EXPECT_TRUE(rtmp.media().empty());
  network(ReachabilityStatus::ReachableViaWiFi);
  network(ReachabilityStatus::ReachableViaWWAN);
  EXPECT_EQ(told(5s), "URK");
  EXPECT_EQ(rtmp.media().size(), 2U);
}

TEST_F(Publisher, FollowsTheWayToItsHost) {
  const std::string up = "link 2; own 2 192.0.2.5; route 192.0.2.0/24 dev 2; route 0.0.0.0/0 via 192.0.2.1 dev 2";
  const std::string noDefault = up.substr(0, up.rfind(';'));
  const std::string down = "link 2 still;" + up.substr(7);
  const std::string moved = down + "; link 3; own 3 10.0.0.5; route 0.0.0.0/0 via 10.0.0.1 dev 3";
  struct Case {
    const char* host;
    const char* foundAt;
    std::vector<std::pair<std::string, const char*>> steps;  // What is told in the six seconds after each change.
  };
  const Case cases[] = {
      {"198.51.100.7", "198.51.100.7", {{up, ""}, {down, "N"}, {up, "URK"}, {moved, "URK"}, {moved, ""}}},
      {"192.0.2.77", "192.0.2.77", {{noDefault, ""}, {down, "N"}, {noDefault, "URK"}}},
      {"studio.example.net", "192.0.2.77", {{noDefault, ""}, {down, "N"}, {noDefault, "URK"}}},
      {"live.example.net", "198.51.100.7", {{noDefault, "N"}, {down, ""}, {up, "URK"}}},
      {"live.example.net", "", {{noDefault, "URK"}, {down, "N"}, {moved, "URK"}}},
      {"localhost", "127.0.0.1", {{down, ""}, {moved, ""}}},
  };
  for (const auto& [host, foundAt, steps] : cases) {
    FakeNetwork fake{test::network(up)};
    auto platform = std::make_shared<Platform>(*manual.platform());
    const auto service = NetlinkReachability::create(std::make_unique<FakeNetworkSource>(fake),
                                                     manual.time->makeSerialQueue("network"), manual.notifications);
    platform->reachability = service;
    const auto change = [&](const std::string& next) {
      fake.now = test::network(next);
      service->takeNews();
      return told(6s);
    };
    info->setUrl("rtmp://" + std::string(host) + "/live/key");
    make(5, 3, platform);
    rtmp.hostAddresses = {foundAt};
    socket->start();
    told(1s);
    for (const auto& [next, events] : steps) {
      EXPECT_EQ(change(next), events) << host << " at " << foundAt << ": " << next;
    }
    // A new URL brings its own host's way with it.
    socket->updateStreamInfo(streamAt("rtmp://127.0.0.1/live/key"));
    rtmp.hostAddresses.clear();
    breakConnection();
    told(6s);
    EXPECT_EQ(change(""), "") << host << ": the new one is this machine";
  }
}

TEST_F(Publisher, CountsWhatItSendsAndDrops) {
  make();
  manual.advance(5s);
  EXPECT_EQ(reports->trends, (std::vector<ZelStreamingBufferState>{ZelStreamingBufferStateDecrease}));
  EXPECT_EQ(reports->counts, (std::vector<std::uint64_t>{0}));
  send({video(1), video(2, {false})});
  manual.notifications->post(notification::DidReceiveMemoryWarning);
  socket->start();
  send({video(1, {true, filled(1000000)})});  // The first frame closes the interval that began at time 0.
  const auto& statistics = reports->statistics;
  ASSERT_EQ(statistics.size(), 1U);
  EXPECT_EQ(statistics[0].roomID + " " + statistics[0].streamID, "room-9 stream-7");
  EXPECT_EQ(statistics[0].uploadUrl, kUrl);
  EXPECT_TRUE(statistics[0].isRtmp);
  manual.advance(999ms);
  send({video(2, {true, filled(500000)}), video(3, {true, filled(400000)}), audio(4, filled(30000))});
  EXPECT_EQ(statistics.size(), 1U);
  manual.advance(1ms);
  send({audio(5, filled(7000))});
  ASSERT_EQ(statistics.size(), 2U);
  const auto& total = statistics[1];
  EXPECT_EQ(total.elapsedMilli, 1000.0);
  EXPECT_EQ(total.currentBandwidth, 930000.0) << "without the frame that closes the interval";
  EXPECT_EQ((std::vector{total.dataFlow, total.videoDataFlow, total.audioDataFlow}),
            (std::vector{1937000.0, 1900000.0, 37000.0}));
  EXPECT_EQ((std::vector{total.totalFrame, total.captureVideoTotalCount, total.captureAudioTotalCount,
                         total.currentCaptureVideoCount, total.currentCaptureAudioCount, total.dropFrame}),
            (std::vector<std::int64_t>{5, 3, 2, 2, 1, 2}));
  socket->stop();
  manual.runPending();
  EXPECT_EQ(log.count("Live: socket traffic: dropFrame:2 unsendFrame:0 senfFrame:5(a:2, v:3) "
                      "totalBandWidth:1.94MB(a:0.04MB, v:1.90MB) liveTime:1.000000"),
            1U);
}

TEST_F(Publisher, EndsInEveryState) {
  enum State { Fresh, Started, Connected, Broken };
  for (const State state : {Fresh, Started, Connected, Broken}) {
    for (const bool lettingGo : {false, true}) {
      SCOPED_TRACE(std::to_string(state) + (lettingGo ? ", letting go" : ", stopping"));
      make();
      if (state >= Started) {
        socket->start();
      }
      if (state >= Connected) {
        manual.runPending();
      }
      if (state == Broken) {
        breakConnection();
        manual.runPending();
      }
      (void)reports->take();
      if (lettingGo) {
        socket.reset();
        manual.runPending();
        EXPECT_EQ(manual.time->liveQueues(), (std::vector<std::string>{"main", "global"}));
      } else {
        socket->stop();
        socket->stop();
        EXPECT_FALSE(socket->waitUntilStopped(0ms));
        manual.runPending();
        EXPECT_TRUE(socket->waitUntilStopped(0ms));
        EXPECT_EQ(std::ranges::count(told(0s), 'S'), 1);
        EXPECT_EQ(rtmp.aborted, state == Started ? 1 : 0);
        EXPECT_EQ(manual.time->delayedWork(), 1U) << "the buffer's timer alone";
        rtmp.sent.clear();
        send({video(1), video(2)});
        socket->start();
      }
      EXPECT_EQ(rtmp.closed, state >= (lettingGo ? Connected : Started) ? 1 : 0);
      network(ReachabilityStatus::ReachableViaWWAN);
      network(ReachabilityStatus::ReachableViaWiFi);
      EXPECT_EQ(told(60s), "");
      EXPECT_EQ(rtmp.media().size(), 0U);
      EXPECT_EQ(log.count(LogLevel::Error, "Live: RTMP_"), 0U) << "an attempt given up for the stop is no error";
    }
  }
  EXPECT_EQ(log.count("Live: dealloc <ZelStreamRtmpSocket"), 8U);
}

}  // namespace
}  // namespace zellive::test
