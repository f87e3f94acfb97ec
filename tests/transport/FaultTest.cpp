#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"
#include "tests/support/WireServer.h"
#include "tests/transport/Fixtures.h"
#include "zellive/transport/HostResolver.h"

// Servers and networks that misbehave, against the whole publisher on real queues.

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

/// The most that stopping may take, in any state.
constexpr auto kStopLimit = 2s;

class Faults : public ::testing::Test {
 protected:
  /// Publishes pictures of 32 kB there; the log begins anew.
  void publish(const std::string& url, const RtmpOptions& limits, std::uint64_t pictures = 300) {
    log = nullptr;
    log = std::make_unique<LogCapture>();
    reports = std::make_shared<Reports>();
    socket = ZelStreamRtmpSocket::create(
        streamAt(url), 1, 3, defaultPlatform(),
        [limits](const RtmpOptions&, const std::shared_ptr<const Platform>& platform,
                 const std::shared_ptr<Queue>& queue) { return makeLibrtmpConnection(limits, platform, queue); });
    socket->setDelegate(reports);
    socket->start();
    for (std::uint64_t i = 0; i < pictures; ++i) {
      socket->sendFrame(video(i * 40, {i % 50 == 0, Bytes(32 * 1024)}));
    }
  }
  void stop() {
    socket->stop();
    EXPECT_TRUE(socket->waitUntilStopped(kStopLimit));
  }
  std::size_t errors(const std::string& text) const { return log->count(LogLevel::Error, text); }

  /// Brief ones, for finding out what happens when they are over.
  const RtmpOptions brief{
      .connectLimit = 300ms, .setupLimit = 500ms, .receiveLimit = 1s, .sendLimit = 300ms, .sendBufferBytes = 16 * 1024};
  const RtmpOptions briefAnswers{.setupLimit = 20s, .receiveLimit = 1s};
  const RtmpOptions patient{
      .connectLimit = 60s, .setupLimit = 60s, .receiveLimit = 60s, .sendLimit = 60s, .sendBufferBytes = 64 * 1024};
  /// A port that swallows connection requests: its queue is full.
  const LoopbackListener hole{AF_INET, 0};
  const int waiting = connectToLoopback(hole.port());
  const std::string holePort = std::to_string(hole.port());
  std::unique_ptr<LogCapture> log;
  std::shared_ptr<Reports> reports;
  std::shared_ptr<ZelStreamRtmpSocket> socket;
};

TEST_F(Faults, EachEndsInAReasonAndInAnotherAttempt) {
  const std::string timeout = "cannot connect to 127.0.0.1 port " + holePort + ": Connection timed out";
  const std::string silence = "the server accepted the connection and then said nothing for 1 s";
  const std::string rejected = "the server refuses the stream: NetConnection.Connect.Rejected (by the test)";
  const std::string taken = "the server refuses the stream: NetStream.Publish.BadName (*** is taken)";
  struct Case {
    WireFault fault;
    std::string url;         ///< Empty: the server's. "rtmps": the same, secured.
    const char* step;        ///< Empty: after the stream was opened.
    std::vector<int> codes;  ///< One of these.
    std::string reason;
    const RtmpOptions& limits;
  };
  const std::vector<Case> cases{
      {WireFault::None, "rtmp://host.invalid/live/key", "Connect", {-2}, "cannot find the host host.invalid", brief},
      {WireFault::None, "rtmp://127.0.0.1/nothing", "SetupURL", {-1}, "the URL names no application and s", brief},
      {WireFault::None, "rtmp://127.0.0.1:" + holePort + "/live/key", "Connect", {-3}, timeout, brief},
      {WireFault::None, "rtmps", "Connect", {-4}, "the server did not agree to a secure connection", brief},
      {WireFault::Silent, "rtmps", "Connect", {-6}, silence, briefAnswers},
      {WireFault::Silent, "", "Connect", {-6}, silence, briefAnswers},
      {WireFault::Drip, "", "Connect", {-6}, "the server did not take the stream within 1 s", brief},
      {WireFault::CloseInHandshake, "", "Connect", {-4}, "the server closed the connection during the han", brief},
      {WireFault::Garbage, "", "ConnectStream", {-9}, "the server does not speak RTMP", brief},
      {WireFault::ResetAfterConnect, "", "ConnectStream", {-8}, "the server ", brief},
      {WireFault::CloseAfterConnect, "", "ConnectStream", {-8}, "the server closed the connection while op", brief},
      {WireFault::SilentAfterConnect, "", "ConnectStream", {-6}, "the server did not answer within 1 s", briefAnswers},
      {WireFault::RefuseConnect, "", "ConnectStream", {-5}, rejected, brief},
      {WireFault::RefusePublish, "", "ConnectStream", {-5}, taken, brief},
      {WireFault::StopReading, "", "", {-7}, "the server has taken nothing for 1 s", brief},
      {WireFault::CloseMidMessage, "", "", {-7, -8}, "", brief},  // By whichever sees it first, send or watch.
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason + " " + c.url);
    WireServer server(c.fault, 16 * 1024);
    publish(c.url.empty() ? server.url() : c.url == "rtmps" ? "rtmps" + server.url().substr(4) : c.url, c.limits);
    ASSERT_TRUE(reports->waitFor("url"));
    std::size_t told = 0;
    for (const int code : c.codes) {
      told += errors("Live: RTMP connect error " + std::to_string(code) + " message " + c.reason);
    }
    EXPECT_EQ(told, 1U);
    const bool setUp = *c.step != 0;
    EXPECT_EQ(errors(std::string("Live: RTMP_") + c.step + "() failed"), setUp ? 1U : 0U);
    if (!setUp || c.fault == WireFault::RefusePublish) {
      server.setFault(WireFault::None);
      EXPECT_TRUE(reports->waitFor("status 5"));
      EXPECT_TRUE(reports->waitFor("status 2", setUp ? 1 : 2)) << "a server that has recovered gets the stream";
    }
    stop();
    EXPECT_TRUE(c.url == "rtmps" || server.wellFormed());
  }
}

TEST_F(Faults, StoppingAndLettingGoEndEveryState) {
  auto roomy = patient;
  roomy.sendBufferBytes = 512 * 1024;
  struct Case {
    const char* name;
    WireFault fault;
    std::function<bool(WireServer&)> entered;
  };
  const std::vector<Case> cases{
      {"connecting", WireFault::None, [this](WireServer&) { return reports->waitFor("status 1"); }},
      {"handshaking", WireFault::Silent,
       [](WireServer& s) { return s.waitUntil([&] { return s.connections() == 1; }); }},
      {"opening the stream", WireFault::SilentAfterConnect,
       [](WireServer& s) { return s.waitUntil([&] { return s.commands().size() == 4; }); }},
      {"sending", WireFault::StopReading, [](WireServer& s) { return s.waitForMedia(4); }},
      {"unread", WireFault::StopReading, [](WireServer& s) { return s.waitForMedia(4); }},
      {"connected", WireFault::None, [](WireServer& s) { return s.waitForMedia(200); }},
  };
  for (const bool lettingGo : {false, true}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (lettingGo ? ", letting go" : ", stopping"));
      WireServer server(c.fault, 16 * 1024);
      const bool unread = c.name == std::string("unread");  // The kernel has taken all; the server never will.
      publish(&c == cases.data() ? "rtmp://127.0.0.1:" + holePort + "/live/key" : server.url(),
              unread ? roomy : patient, unread ? 15 : 300);
      ASSERT_TRUE(c.entered(server));
      const std::string gone = "Live: dealloc " + describeObject("ZelStreamRtmpSocket", socket.get());
      if (!lettingGo) {
        stop();
        EXPECT_TRUE(reports->waitFor("status 3"));
      }
      socket.reset();
      EXPECT_TRUE(server.waitUntil([&] { return log->count(gone) == 1; }, kStopLimit));
      EXPECT_TRUE(server.waitUntil([&] { return server.closed() == server.connections(); }, kStopLimit));
      EXPECT_EQ(errors(unread ? "" : "Live: RTMP"), 0U);
    }
  }
}

TEST(HostResolver, GivesUpWithoutWaitingForTheNameService) {
  struct Stuck : NameService {
    HostAddresses lookUp(const std::string&, std::uint16_t) override {
      (void)over.wait();
      return {};
    }
    Event over;
  };
  const auto stuck = std::make_shared<Stuck>();
  AbortSwitch thrown;
  thrown.throwSwitch(AbortSwitch::State::Aborted);
  const AbortSwitch open;
  EXPECT_EQ(resolveHost(stuck, "host", 80, 60s, thrown).failure, "given up");
  EXPECT_EQ(resolveHost(stuck, "host", 80, 0s, open).failure, "the name service does not answer");
  EXPECT_EQ(resolveHost(stuck, "::1", 80, 60s, open).addresses.size(), 1U) << "an address needs no name service";
  stuck->over.set();
}

}  // namespace
}  // namespace zellive::test
