#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "tests/support/WireServer.h"
#include "tests/transport/Frames.h"
#include "zellive/session/ZelLiveStreamInfo.h"
#include "zellive/transport/HostResolver.h"
#include "zellive/transport/ZelStreamRtmpSocket.h"

// Servers and networks that misbehave, against the whole publisher on real queues.

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

/// The most that stopping may take, in any state.
constexpr auto kStopLimit = 2s;

struct Reports : ZelStreamSocketDelegate {
  void socketStatus(ZelStreamRtmpSocket&, std::uint64_t status) override { note("status " + std::to_string(status)); }
  void socketRequestNewUrl(ZelStreamRtmpSocket&) override { note("url"); }
  void note(const std::string& event) {
    const std::lock_guard lock(mutex);
    events.push_back(event);
    changed.notify_all();
  }
  bool waitFor(const std::string& event, std::size_t times = 1) {
    std::unique_lock lock(mutex);
    return changed.wait_for(
        lock, 20s, [&] { return static_cast<std::size_t>(std::count(events.begin(), events.end(), event)) >= times; });
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events;
};

/// A port that swallows connection requests: its queue of one is full.
class BlackHole {
 public:
  BlackHole() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(::bind(listener_, any, length), 0);
    EXPECT_EQ(::listen(listener_, 0), 0);
    EXPECT_EQ(::getsockname(listener_, any, &length), 0);
    for (int& client : clients_) {
      client = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      ::connect(client, any, length);
    }
    port = ntohs(address.sin_port);
  }
  ~BlackHole() {
    ::close(listener_);
    for (const int client : clients_) {
      ::close(client);
    }
  }
  BlackHole(const BlackHole&) = delete;
  BlackHole& operator=(const BlackHole&) = delete;

  std::uint16_t port = 0;

 private:
  int listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
  int clients_[3]{};
};

class Faults : public ::testing::Test {
 protected:
  void publish(const std::string& url, const RtmpOptions& limits) {
    auto info = std::make_shared<ZelLiveStreamInfo>();
    info->setUrl(url);
    socket = ZelStreamRtmpSocket::create(
        info, 1, 3, defaultPlatform(),
        [limits](const RtmpOptions&, const std::shared_ptr<const Platform>& platform,
                 const std::shared_ptr<Queue>& queue) { return makeLibrtmpConnection(limits, platform, queue); });
    reports = std::make_shared<Reports>();
    socket->setDelegate(reports);
    socket->start();
  }
  /// Queues some megabytes of pictures.
  void sendMuch() {
    for (std::uint64_t i = 0; i < 300; ++i) {
      socket->sendFrame(video(i * 40, {i % 50 == 0, Bytes(32 * 1024)}));
    }
  }
  /// Brief limits, for finding out what happens when they are over.
  static RtmpOptions brief() {
    RtmpOptions limits;
    limits.receiveLimit = 1s;
    limits.connectLimit = 300ms;
    limits.setupLimit = 500ms;
    limits.sendLimit = 300ms;
    limits.sendBufferBytes = 16 * 1024;
    return limits;
  }

  std::unique_ptr<LogCapture> log = std::make_unique<LogCapture>();
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
    WireServer server({.fault = c.fault, .receiveBufferBytes = 16 * 1024});
    log = nullptr;
    log = std::make_unique<LogCapture>();
    publish(server.url(), brief());
    sendMuch();
    ASSERT_TRUE(reports->waitFor("url"));
    const bool setUp = *c.step != 0;
    EXPECT_EQ(log->count(LogLevel::Error, std::string("Live: ") + c.step + "() failed"), setUp ? 1U : 0U);
    if (c.fault == WireFault::CloseMidMessage) {  // Seen by whichever comes first, the send or the watch.
      EXPECT_EQ(log->count(LogLevel::Error, "Live: RTMP connect error -8") +
                    log->count(LogLevel::Error, "Live: RTMP connect error -7"),
                1U);
    } else {
      const std::string line = "Live: RTMP connect error " + std::to_string(c.code) + " message ";
      EXPECT_EQ(log->count(LogLevel::Error, line), 1U);
      EXPECT_EQ(log->count(LogLevel::Error, c.reason), 1U);
    }
    if (!setUp || c.fault == WireFault::RefusePublish) {
      server.setFault(WireFault::None);
      EXPECT_TRUE(reports->waitFor("status 5"));
      EXPECT_TRUE(reports->waitFor("status 2", setUp ? 1 : 2)) << "a server that has recovered gets the stream";
    }
    socket->stop();
    EXPECT_TRUE(socket->waitUntilStopped(kStopLimit));
    EXPECT_TRUE(server.wellFormed());
    socket.reset();
  }
}

TEST_F(Faults, ASilentServerIsGivenUpAfterTheReceiveLimit) {
  WireServer server({.fault = WireFault::Silent});
  auto limits = brief();
  limits.setupLimit = 20s;
  const std::string address = server.url().substr(server.url().find(':'));
  for (const std::string scheme : {"rtmp", "rtmps"}) {
    publish(scheme + address, limits);
    ASSERT_TRUE(reports->waitFor("url"));
    EXPECT_EQ(log->count(LogLevel::Error, "said nothing for 1 s: is it an RTMP server?"), 1U) << scheme;
    socket.reset();
    log = nullptr;
    log = std::make_unique<LogCapture>();
  }
}

TEST_F(Faults, HostsThatCannotBeReached) {
  std::uint16_t closedPort = 0;
  { closedPort = WireServer().port(); }
  const BlackHole hole;
  const WireServer plain;
  struct Case {
    std::string url;
    const char* reason;
  };
  const std::vector<Case> cases{
      {"rtmp://127.0.0.1:" + std::to_string(closedPort) + "/live/key", "error -3 message cannot connect to 127.0.0.1"},
      {"rtmp://127.0.0.1:" + std::to_string(hole.port) + "/live/key", "timed out"},
      {"rtmps://127.0.0.1:" + std::to_string(plain.port()) + "/live/key", "did not agree to a secure connection"},
      {"rtmp://host.invalid/live/key", "error -2 message cannot find the host host.invalid"},
      {"rtmp://127.0.0.1/nothing", "error -1 message the URL names no application and stream"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    publish(c.url, brief());
    ASSERT_TRUE(reports->waitFor("url"));
    EXPECT_EQ(log->count(LogLevel::Error, c.reason), 1U);
    socket->stop();
    EXPECT_TRUE(socket->waitUntilStopped(kStopLimit));
  }
}

TEST_F(Faults, StoppingAndLettingGoEndEveryState) {
  const BlackHole hole;
  struct Case {
    const char* name;
    WireFault fault;
    bool unreachable;
    std::function<bool(WireServer&)> entered;
  };
  const std::vector<Case> cases{
      {"connecting", WireFault::None, true, [this](WireServer&) { return reports->waitFor("status 1"); }},
      {"handshaking", WireFault::Silent, false,
       [](WireServer& s) { return s.waitUntil([&] { return s.connections() == 1; }); }},
      {"opening the stream", WireFault::SilentAfterConnect, false,
       [](WireServer& s) { return s.waitUntil([&] { return s.commands().size() == 4; }); }},
      {"sending", WireFault::StopReading, false, [](WireServer& s) { return s.waitForMedia(3); }},
      {"connected", WireFault::None, false, [](WireServer& s) { return s.waitForMedia(200); }},
  };
  for (const bool lettingGo : {false, true}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(c.name) + (lettingGo ? ", letting go" : ", stopping"));
      log = nullptr;
      log = std::make_unique<LogCapture>();
      WireServer server({.fault = c.fault, .receiveBufferBytes = 16 * 1024});
      const std::string url =
          c.unreachable ? "rtmp://127.0.0.1:" + std::to_string(hole.port) + "/live/key" : server.url();
      RtmpOptions patient;
      patient.receiveLimit = 60s;
      patient.connectLimit = 60s;
      patient.setupLimit = 60s;
      patient.sendLimit = 60s;
      publish(url, patient);
      sendMuch();
      ASSERT_TRUE(c.entered(server));
      const std::string gone = "Live: dealloc " + describeObject("ZelStreamRtmpSocket", socket.get());
      if (!lettingGo) {
        socket->stop();
        EXPECT_TRUE(socket->waitUntilStopped(kStopLimit));
        EXPECT_TRUE(reports->waitFor("status 3"));
      }
      socket.reset();
      EXPECT_TRUE(server.waitUntil([&] { return log->count(gone) == 1; }, kStopLimit));
      // A server that reads nothing sees no end that was announced before its window closed.
      EXPECT_TRUE(c.fault == WireFault::StopReading ||
                  server.waitUntil([&] { return server.closed() == server.connections(); }, kStopLimit));
      EXPECT_EQ(log->count(LogLevel::Error, "Live: RTMP"), 0U);
    }
  }
}

TEST(HostResolver, GivesUpWithoutWaitingForTheNameService) {
  AbortSwitch thrown;
  thrown.throwSwitch(AbortSwitch::State::Aborted);
  EXPECT_EQ(resolveHost("localhost", 80, 60s, thrown).failure, "given up");
  const AbortSwitch open;
  EXPECT_FALSE(resolveHost("127.0.0.1", 80, 60s, open).addresses.empty());
  EXPECT_EQ(resolveHost("::1", 80, 0s, open).addresses.size(), 1U) << "an address needs no name service";
}

}  // namespace
}  // namespace zellive::test
