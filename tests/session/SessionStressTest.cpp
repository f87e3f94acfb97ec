#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "tests/codec/FakeCompression.h"
#include "tests/support/Event.h"
#include "tests/support/WireServer.h"
#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::test {
namespace {

#if defined(__SANITIZE_THREAD__)
struct NoGraphics : GraphicsService {
  std::shared_ptr<GraphicsContext> makeContext(GraphicsAPI, const std::shared_ptr<GraphicsContext>&) override {
    return nullptr;
  }
};
#endif

using namespace std::chrono_literals;
using Session = std::shared_ptr<ZelLiveSession>;

thread_local std::minstd_rand dice(std::random_device{}());
bool oneIn(unsigned n) { return dice() % n == 0; }

void ask(ZelLiveSession& session) {
  (void)session.state();
  (void)session.streamInfo();
  (void)session.debugInfo();
  (void)session.denoiseLevel();
  (void)session.videoBitRate();
  (void)session.inputAudioASBD();
}

/// Sessions that come and go while threads use them: whoever takes one may turn out to be its last owner. As their
/// delegate and log handler it uses them, ends them and lets go of them from inside every call.
struct Crowd : ZelLiveSessionDelegate {
  Session any() {
    const std::lock_guard lock(mutex);
    return sessions[dice() % sessions.size()];
  }
  /// The former one ends wherever its last owner is.
  void replace(Session next) {
    const std::lock_guard lock(mutex);
    sessions[dice() % sessions.size()].swap(next);
  }
  void replaceAll(std::array<Session, 3> next = {}) {
    const std::lock_guard lock(mutex);
    sessions.swap(next);
  }
  void leave() { --alive == 0 ? gone.set() : void(); }

  void meddle(ZelLiveSession& session) {
    ask(session);
    session.setDenoiseLevel(1 + dice() % 3);
    session.turnOffVideo(oneIn(4));
    oneIn(100) ? session.stopLive() : void();
    oneIn(100) ? replace(nullptr) : void();
  }
  void liveSessionLiveStateDidChange(ZelLiveSession& session, std::uint64_t) override { meddle(session); }
  void liveSessionErrorCode(ZelLiveSession& session, std::uint64_t) override { meddle(session); }
  void liveSessionLiveBufferCount(ZelLiveSession& session, std::uint64_t) override { meddle(session); }
  void liveSessionDebugInfo(ZelLiveSession& session, const ZelLiveDebug&) override { meddle(session); }

  void hear(std::string_view message) {
    message.starts_with("Live: dealloc <ZelLiveSession:") ? leave() : void();
    thread_local bool inside = false;
    if (const auto session = inside ? nullptr : any()) {
      inside = true;
      ask(*session);
      oneIn(2000) ? session->suspendLive() : void();
      inside = false;
    }
  }

  std::mutex mutex;
  std::array<Session, 3> sessions;
  std::atomic<int> alive = 1;  ///< Sessions, and the test itself.
  Event gone;
};

/// Its encoder's session is replaced again and again, because it refuses pictures.
Session startedSession(const std::string& url, const std::shared_ptr<Crowd>& crowd) {
  constexpr std::int64_t type = ZelLiveInputAudio | ZelLiveInputVideo;
  auto video = ZelLiveVideoConfiguration::defaultConfigurationForQuality(ZelLiveVideoQualityLow, type);
  video->setVideoSize({64, 64});
  const auto compression = std::make_shared<FakeCompression>();
  compression->behind = defaultPlatform()->videoCompression;
  const auto platform = std::make_shared<Platform>(*defaultPlatform());
  platform->videoCompression = compression;
#if defined(__SANITIZE_THREAD__)
  // The software renderer and its compiler are not instrumented, and several contexts at once look like races in them.
  platform->graphics = std::make_shared<NoGraphics>();
#endif
  ++crowd->alive;
  auto session = ZelLiveSession::create(ZelLiveAudioConfiguration::defaultConfiguration(), video, type, platform);
  session->setDelegate(crowd);
  session->setShowDebugInfo(true);
  session->setAdaptiveBitRate(true);
  session->setReconnectInterval(1);
  session->setVideoEncoderOptions({"libx264", "ultrafast"});
  auto info = std::make_shared<ZelLiveStreamInfo>();
  info->setUrl(url);
  info->roomId = "room";
  session->startLive(info);
  return session;
}

/// One of the things that an application or a machine does to a session.
void use(ZelLiveSession& session, WireServer& server, ZelStreamRtmpSocket& publisher) {
  switch (dice() % 8) {
    case 0:
      session.socketBufferStatus(publisher,
                                 oneIn(2) ? ZelStreamingBufferStateIncrease : ZelStreamingBufferStateDecrease);
      oneIn(2) ? session.turnOffAudio(oneIn(4)) : session.turnOffVideo(oneIn(4));
      session.setDenoiseLevel(dice() % 5);
      break;
    case 1:
      defaultPlatform()->notifications->post(oneIn(4) ? notification::DidEnterBackground
                                                      : notification::WillEnterForeground);
      session.setRunning(oneIn(2));
      oneIn(100) ? server.cut() : void();
      break;
    case 2:
      if (oneIn(100)) {
        oneIn(2) ? session.stopLive() : session.suspendLive();
        EXPECT_TRUE(oneIn(2) || session.waitUntilStopped(10s));
      }
      break;
    case 3:
    case 4:
      session.pushVideo(
          PixelBuffer::create(oneIn(2) ? PixelFormat::BGRA : PixelFormat::Planar, 64, oneIn(50) ? 32 : 64));
      break;
    default:
      session.pushAudio(std::vector<std::uint8_t>(oneIn(50) ? 1 : dice() % 4096));
  }
}

TEST(SessionStress, SessionsMayBeUsedEndedAndDestroyedByAnyThreadAtAnyTime) {
  WireServer server;
  const auto crowd = std::make_shared<Crowd>();
  const auto publisher = ZelStreamRtmpSocket::create(std::make_shared<ZelLiveStreamInfo>());
  // The handler may still be running on some thread when it has been replaced.
  setLogHandler([crowd](LogLevel, std::string_view, int, std::string_view message) { crowd->hear(message); });
  std::vector<std::jthread> threads(7);
  for (auto& thread : threads) {
    thread = std::jthread([&](const std::stop_token& over) {
      while (!over.stop_requested()) {
        if (const auto session = crowd->any()) {
          use(*session, server, *publisher);
          ask(*session);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(dice() % 1000));
      }
    });
  }
  for (const auto last = std::chrono::steady_clock::now() + 1500ms; std::chrono::steady_clock::now() < last;) {
    crowd->replace(startedSession(server.url(), crowd));
    std::this_thread::sleep_for(std::chrono::milliseconds(dice() % 100));
  }
  threads.clear();
  crowd->replaceAll();
  crowd->leave();
  EXPECT_TRUE(crowd->gone.wait()) << "some sessions never ended";
  setLogHandler({});
  EXPECT_FALSE(server.media().empty()) << "nothing was ever published";
  EXPECT_TRUE(server.waitForEnd()) << "a connection stays open";
  EXPECT_TRUE(server.wellFormed());
}

}  // namespace
}  // namespace zellive::test
