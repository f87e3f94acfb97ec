#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/FakeRtmp.h"
#include "tests/support/ManualPlatform.h"
#include "tests/support/NetworkText.h"
#include "tests/transport/Fixtures.h"
#include "zellive/platform/linux/NetlinkReachability.h"

namespace zellive::test {
namespace {

class Publisher : public ::testing::Test {
 protected:
  ~Publisher() override {
    socket.reset();
    manual.runPending();
  }

  /// A publisher in whose sorting stage five frames stay for good, so that every later one comes out at once. Nothing
  /// is left of a former one.
  void make(std::int64_t interval = 0, std::int64_t count = 0) {
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
    EXPECT_EQ(told(0s), "CK");
  }
  void send(const std::vector<Frame>& frames) {
    std::ranges::for_each(frames, [&](const Frame& frame) { socket->sendFrame(frame); });
    manual.runPending();
  }
  /// What was reported since the last call, and is then.
  std::string told(std::chrono::seconds time) {
    manual.advance(time);
    return reports->take();
  }
  void breakConnection() { rtmp.breakConnection({RtmpFailureClosed, "gone"}); }

  ManualPlatform manual;
  std::shared_ptr<Platform> platform;  ///< Null: the manual one.
  LogCapture log;
  FakeRtmp rtmp;
  std::shared_ptr<Reports> reports;
  const std::shared_ptr<ZelLiveStreamInfo> info = streamAt("rtmp://host/live/key");
  std::shared_ptr<ZelStreamRtmpSocket> socket;
};

TEST_F(Publisher, SpendsTheFirstFrameOfEachKindOnItsHeader) {
  const VideoParts inter{false, {0x41}};
  const VideoParts sei{true, {6, 1}};
  // What is sent, a pair each: a full or a medium header, and a sequence header's or a frame's size. The last frame is
  // always at 2.
  const std::tuple<const char*, std::vector<Frame>, std::string> cases[] = {
      {"SEI ahead and between", {video(1, sei), video(2), video(2, sei), video(2, inter)}, "f22h f11 f10 "},
      {"sets on a predicted picture", {video(1, inter), video(2, inter)}, "f22h f10 "},
      {"no PPS", {video(1, {true, {9}, {0x67, 1, 2, 3}, {}}), video(2, inter)}, "f10 "},
      {"oversized SPS", {video(1, {true, {9}, Bytes(1007)}), video(2, inter)}, "f10 "},
      {"the largest", {video(1, {true, {9}, Bytes(1006)})}, "f1024h "},
      {"stunted SPS", {video(1, {true, {9}, Bytes(3)}), video(2, inter)}, "f10 "},
      {"sound of two bytes", {audio(1), audio(2, {1, 2})}, "f4h f4 "},
      {"no AudioSpecificConfig", {audio(1, {1}, {}), audio(2, {1})}, "m3 "},
      {"neither kind", {std::make_shared<ZelFrame>(), audio(2, {1})}, "m3 "},
  };
  for (const auto& [what, frames, expected] : cases) {
    connect();
    send(frames);
    std::string sent;
    for (const auto& message : rtmp.media) {
      const bool header = message.body[1] == 0;
      sent += (message.headerType == 0 ? "f" : "m") + std::to_string(message.body.size()) + (header ? "h " : " ");
      EXPECT_EQ(message.timestamp, header ? 0U : 2U) << what;
    }
    EXPECT_EQ(sent, expected) << what;
  }
  EXPECT_EQ(log.count(LogLevel::Error, "parameter sets of"), 2U);
}

TEST_F(Publisher, TriesUntilItIsConnectedTellsOfItAndAsksForUrls) {
  for (const char* step : {"RTMP_SetupURL", "RTMP_Connect", "RTMP_ConnectStream"}) {
    SCOPED_TRACE(step);
    make();
    rtmp.failAt = step;
    socket->start();
    EXPECT_EQ(told(9s), "CUR");
    EXPECT_EQ(told(1s), "REX");
    EXPECT_EQ(told(5s), "REX");
    EXPECT_EQ(rtmp.closed, 4);
    EXPECT_EQ(log.count(LogLevel::Error, std::string("Live: ") + step + "() failed"), 4U);
    rtmp.failAt = "";
    EXPECT_EQ(told(5s), "RK");
    breakConnection();
    breakConnection();
    rtmp.breakConnection({0, "no failure"});
    socket->updateStreamInfo(streamAt("rtmp://other/live/key"));
    socket->updateStreamInfo(nullptr);
    EXPECT_EQ(told(60s), "URK") << "counted from 0, one attempt for both";
    EXPECT_EQ(rtmp.urls.back(), "rtmp://other/live/key");
    rtmp.failAt = step;
    breakConnection();
    EXPECT_EQ(told(6s), "UR");
    rtmp.failAt = "";
    socket->start();
    EXPECT_EQ(told(60s), "CK") << "at once, and the planned attempt has nothing left to do";
  }
  make(1, 1000);
  rtmp.failAt = "RTMP_SetupURL";
  socket->start();
  EXPECT_EQ(std::ranges::count(told(200s), 'U'), 3);
  EXPECT_EQ(rtmp.urls.size(), 201U) << "every hundredth asks";
  EXPECT_THAT([] { (void)ZelStreamRtmpSocket::create(nullptr); },
              ::testing::ThrowsMessage<ZelException>("ZelStreamRtmpSocket init error: stream is nil"));
}

TEST_F(Publisher, KeepsWhatItCouldNotSendForTheNextConnection) {
  connect();
  send({video(1), audio(2), video(3)});
  rtmp.sendResult = 0;
  send({video(4), video(5), audio(6), video(7)});
  EXPECT_EQ(log.count(LogLevel::Error, "Live: send packet error: 0"), 1U) << "the frames behind it wait";
  EXPECT_EQ(told(5s), "URKU");
  EXPECT_EQ(log.count("Live: send packet error"), 1U) << "it broke again at once, which costs no frame";
  rtmp.sendResult = 1;
  rtmp.media.clear();
  EXPECT_EQ(told(5s), "RK");
  ASSERT_EQ(rtmp.media.size(), 3U);
  EXPECT_TRUE(rtmp.media[0].body[1] == 0 && rtmp.media[1].body[1] == 0 && rtmp.media[2].timestamp == 7);
}

TEST_F(Publisher, FollowsTheWayToItsHost) {
  const std::string near = "link 2; own 2 192.0.2.5; route 192.0.2.0/24 dev 2";
  const std::string up = near + "; route 0.0.0.0/0 via 192.0.2.1 dev 2";
  const std::string down = "link 2 still;" + up.substr(7);
  const std::string moved = down + "; link 3; own 3 10.0.0.5; route 0.0.0.0/0 via 10.0.0.1 dev 3";
  // What is told in the six seconds after each change.
  const std::tuple<const char*, const char*, std::vector<std::pair<std::string, const char*>>> cases[] = {
      {"198.51.100.7", "198.51.100.7", {{up, ""}, {down, "N"}, {up, "URK"}, {moved, "URK"}, {moved, ""}}},
      {"studio.example.net", "192.0.2.77", {{near, ""}, {down, "N"}, {near, "URK"}}},
      {"live.example.net", "198.51.100.7", {{near, "N"}, {down, ""}, {up, "URK"}}},
      {"localhost", "127.0.0.1", {{down, ""}, {moved, ""}}},
  };
  for (const auto& [host, foundAt, steps] : cases) {
    FakeNetwork fake{network(up)};
    const auto service = NetlinkReachability::create(std::make_unique<FakeNetworkSource>(fake),
                                                     manual.time->makeSerialQueue("network"), manual.notifications);
    platform = std::make_shared<Platform>(*manual.platform());
    platform->reachability = service;
    const auto expect = [&](const std::string& next, const char* events) {
      fake.now = network(next);
      service->takeNews();
      EXPECT_EQ(told(6s), events) << info->url() << ": " << next;
    };
    info->setUrl("rtmp://" + std::string(host) + "/live/key");
    make();
    rtmp.hostAddresses = {foundAt};
    socket->start();
    told(1s);
    for (const auto& [next, events] : steps) {
      expect(next, events);
    }
    socket->updateStreamInfo(streamAt("rtmp://127.0.0.1/live/key"));
    rtmp.hostAddresses.clear();
    breakConnection();
    told(6s);
    expect("", "");  // The new one is this machine.
  }
}

TEST_F(Publisher, CountsWhatItSendsAndDrops) {
  info->streamId = "stream-7";
  info->roomId = "room-9";
  make();
  send({video(1), video(2, {false})});
  manual.notifications->post(notification::DidReceiveMemoryWarning);
  manual.advance(5s);
  socket->start();
  send({video(1, {true, Bytes(1000000)})});  // The first frame closes the interval that began at time 0.
  const auto& statistics = reports->statistics;
  ASSERT_EQ(statistics.size(), 1U);
  EXPECT_EQ(statistics[0].roomID + " " + statistics[0].streamID + " " + statistics[0].uploadUrl,
            "room-9 stream-7 rtmp://host/live/key");
  manual.advance(999ms);
  send({video(2, {true, Bytes(500000)}), video(3, {true, Bytes(400000)}), audio(4, Bytes(30000))});
  EXPECT_EQ(statistics.size(), 1U);
  manual.advance(1ms);
  send({audio(5, Bytes(7000))});
  ASSERT_EQ(statistics.size(), 2U);
  const auto& total = statistics[1];
  EXPECT_EQ(total.currentBandwidth, 930000.0) << "without the frame that closes the interval";
  EXPECT_EQ((std::vector{total.elapsedMilli, total.dataFlow, total.videoDataFlow, total.audioDataFlow}),
            (std::vector{1000.0, 1937000.0, 1900000.0, 37000.0}));
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
      state >= Started ? socket->start() : void();
      state >= Connected ? manual.runPending() : void();
      state == Broken ? breakConnection() : void();
      state == Broken ? manual.runPending() : void();
      (void)reports->take();
      if (lettingGo) {
        socket.reset();
        manual.runPending();
        EXPECT_EQ(manual.time->liveQueues(), (std::vector<std::string>{"main", "global"}));
      } else {
        socket->stop();
        socket->stop();
        EXPECT_FALSE(socket->waitUntilStopped(0ms));
        EXPECT_EQ(std::ranges::count(told(0s), 'S'), 1);
        EXPECT_TRUE(socket->waitUntilStopped(0ms));
        EXPECT_EQ(rtmp.aborted, state == Started ? 1 : 0);
        EXPECT_EQ(manual.time->delayedWork(), 1U) << "the buffer's timer alone";
        send({video(1), video(2)});
        socket->start();
      }
      EXPECT_EQ(rtmp.closed, state >= (lettingGo ? Connected : Started) ? 1 : 0);
      manual.notifications->post(notification::ReachabilityDidChange);
      EXPECT_EQ(told(60s), "");
      EXPECT_TRUE(rtmp.media.empty());
      EXPECT_EQ(log.count(LogLevel::Error, "Live: RTMP_"), 0U) << "an attempt given up for the stop is no error";
    }
  }
}

}  // namespace
}  // namespace zellive::test
