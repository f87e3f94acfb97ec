#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

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

/// A port that swallows connection requests: its queue is full.
struct BlackHole {
  ~BlackHole() { ::close(client); }
  [[nodiscard]] std::string url() const { return "rtmp://127.0.0.1:" + std::to_string(listener.port()) + "/live/key"; }
  const LoopbackListener listener{AF_INET, 0};
  const int client = connectToLoopback(listener.port());
};

class Faults : public ::testing::Test {
 protected:
  /// Publishes some megabytes of pictures there; the log begins anew.
  void publish(const std::string& url, const RtmpOptions& limits) {
    log = nullptr;
    log = std::make_unique<LogCapture>();
    reports = std::make_shared<Reports>();
    socket = ZelStreamRtmpSocket::create(
        streamAt(url), 1, 3, defaultPlatform(),
        [limits](const RtmpOptions&, const std::shared_ptr<const Platform>& platform,
                 const std::shared_ptr<Queue>& queue) { return makeLibrtmpConnection(limits, platform, queue); });
    socket->setDelegate(reports);
    socket->start();
    for (std::uint64_t i = 0; i < 300; ++i) {
      socket->sendFrame(video(i * 40, {i % 50 == 0, Bytes(32 * 1024)}));
    }
  }
  void stop() {
    socket->stop();
    EXPECT_TRUE(socket->waitUntilStopped(kStopLimit));
  }
  static RtmpOptions limits(std::chrono::seconds receive, std::chrono::milliseconds setup,
                            std::chrono::milliseconds others, std::uint32_t sendBuffer) {
    RtmpOptions limits;
    limits.receiveLimit = receive;
    limits.setupLimit = setup;
    limits.connectLimit = limits.sendLimit = others;
    limits.sendBufferBytes = sendBuffer;
    return limits;
  }
  std::size_t errors(const std::string& text) const { return log->count(LogLevel::Error, text); }

  /// Brief ones, for finding out what happens when they are over.
  const RtmpOptions brief = limits(1s, 500ms, 300ms, 16 * 1024);
  const RtmpOptions patient = limits(60s, 60s, 60s, 64 * 1024);
  std::unique_ptr<LogCapture> log;
  std::shared_ptr<Reports> reports;
  std::shared_ptr<ZelStreamRtmpSocket> socket;
};

TEST_F(Faults, EachEndsInAReasonAndInAnotherAttempt) {
  struct Case {
    WireFault fault;
    RtmpFailure code;
    const char* step;  ///< Empty: after the stream was opened.
    const char* reason;
  };
  const std::vector<Case> cases{
      {WireFault::Silent, RtmpFailureTimeout, "RTMP_Connect", "did not take the stream within 1 s"},
      {WireFault::Drip, RtmpFailureTimeout, "RTMP_Connect", "did not take the stream within 1 s"},
      {WireFault::CloseInHandshake, RtmpFailureHandshake, "RTMP_Connect", "closed the connection during the handshake"},
      {WireFault::Garbage, RtmpFailureProtocol, "RTMP_ConnectStream", "does not speak RTMP"},
      {WireFault::ResetAfterConnect, RtmpFailureClosed, "RTMP_ConnectStream", "message the server "},
      {WireFault::CloseAfterConnect, RtmpFailureClosed, "RTMP_ConnectStream", "closed the connection while opening"},
      {WireFault::SilentAfterConnect, RtmpFailureTimeout, "RTMP_ConnectStream", "did not take the stream within 1 s"},
      {WireFault::RefuseConnect, RtmpFailureRefused, "RTMP_ConnectStream",
       "the server refuses the stream: NetConnection.Connect.Rejected (by the test)"},
      {WireFault::RefusePublish, RtmpFailureRefused, "RTMP_ConnectStream",
       "the server refuses the stream: NetStream.Publish.BadName (by the test)"},
      {WireFault::CloseMidMessage, RtmpFailureClosed, "", ""},
      {WireFault::StopReading, RtmpFailureSend, "", "the server has taken nothing for 1 s"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reason);
    WireServer server(c.fault, 16 * 1024);
    publish(server.url(), brief);
    ASSERT_TRUE(reports->waitFor("url"));
    const bool setUp = *c.step != 0;
    EXPECT_EQ(errors(std::string("Live: ") + c.step + "() failed"), setUp ? 1U : 0U);
    if (c.fault == WireFault::CloseMidMessage) {  // Seen by whichever comes first, the send or the watch.
      EXPECT_EQ(errors("Live: RTMP connect error -8") + errors("Live: RTMP connect error -7"), 1U);
    } else {
      EXPECT_EQ(errors("Live: RTMP connect error " + std::to_string(c.code) + " message "), 1U);
      EXPECT_EQ(errors(c.reason), 1U);
    }
    if (!setUp || c.fault == WireFault::RefusePublish) {
      server.setFault(WireFault::None);
      EXPECT_TRUE(reports->waitFor("status 5"));
      EXPECT_TRUE(reports->waitFor("status 2", setUp ? 1 : 2)) << "a server that has recovered gets the stream";
    }
    stop();
    EXPECT_TRUE(server.wellFormed());
  }
}

TEST_F(Faults, HostsThatCannotBeReached) {
  const BlackHole hole;
  const WireServer plain;
  const WireServer silent(WireFault::Silent);
  const auto onlyReceiving = limits(1s, 20s, 300ms, 16 * 1024);
  struct Case {
    std::string url;
    const RtmpOptions& limits;
    const char* reason;
  };
  const auto there = [](std::uint16_t port) { return "://127.0.0.1:" + std::to_string(port) + "/live/key"; };
  const std::vector<Case> cases{
      {"rtmp" + there(freePort()), brief, "error -3 message cannot connect to 127.0.0.1"},
      {hole.url(), brief, "timed out"},
      {"rtmps" + there(plain.port()), brief, "did not agree to a secure connection"},
      {"rtmp://host.invalid/live/key", brief, "error -2 message cannot find the host host.invalid"},
      {"rtmp://127.0.0.1/nothing", brief, "error -1 message the URL names no application and stream"},
      {"rtmp" + there(silent.port()), onlyReceiving, "said nothing for 1 s: is it an RTMP server?"},
      {"rtmps" + there(silent.port()), onlyReceiving, "said nothing for 1 s: is it an RTMP server?"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    publish(c.url, c.limits);
    ASSERT_TRUE(reports->waitFor("url"));
    EXPECT_EQ(errors(c.reason), 1U);
    stop();
  }
}

TEST_F(Faults, StoppingAndLettingGoEndEveryState) {
  const BlackHole hole;
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
      {"sending", WireFault::StopReading, [](WireServer& s) { return s.waitForMedia(3); }},
      {"connected", WireFault::None, [](WireServer& s) { return s.waitForMedia(200); }},
  };
  for (const bool lettingGo : {false, true}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (lettingGo ? ", letting go" : ", stopping"));
      WireServer server(c.fault, 16 * 1024);
      publish(&c == cases.data() ? hole.url() : server.url(), patient);
      ASSERT_TRUE(c.entered(server));
      const std::string gone = "Live: dealloc " + describeObject("ZelStreamRtmpSocket", socket.get());
      if (!lettingGo) {
        stop();
        EXPECT_TRUE(reports->waitFor("status 3"));
      }
      socket.reset();
      EXPECT_TRUE(server.waitUntil([&] { return log->count(gone) == 1; }, kStopLimit));
      // A server that reads nothing sees no end that was announced before its window closed.
      EXPECT_TRUE(c.fault == WireFault::StopReading ||
                  server.waitUntil([&] { return server.closed() == server.connections(); }, kStopLimit));
      EXPECT_EQ(errors("Live: RTMP"), 0U);
    }
  }
}

TEST(HostResolver, GivesUpWithoutWaitingForTheNameService) {
  AbortSwitch thrown;
  thrown.throwSwitch(AbortSwitch::State::Aborted);
  EXPECT_EQ(resolveHost(defaultPlatform()->names, "localhost", 80, 60s, thrown).failure, "given up");
  const AbortSwitch open;
  EXPECT_FALSE(resolveHost(defaultPlatform()->names, "127.0.0.1", 80, 60s, open).addresses.empty());
  EXPECT_EQ(resolveHost(defaultPlatform()->names, "::1", 80, 0s, open).addresses.size(), 1U)
      << "an address needs no name service";
}

}  // namespace
}  // namespace zellive::test
