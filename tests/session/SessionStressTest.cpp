#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "tests/support/WireServer.h"
#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

/// Sessions that come and go while threads use them: whoever takes one may turn out to be its last owner.
class Sessions {
 public:
  using Session = std::shared_ptr<ZelLiveSession>;

  [[nodiscard]] Session take(std::size_t index) {
    const std::lock_guard lock(mutex_);
    return sessions_[index % sessions_.size()];
  }
  /// The former one ends wherever its last owner is.
  void replace(std::size_t index, Session session) {
    const std::lock_guard lock(mutex_);
    sessions_[index % sessions_.size()].swap(session);
  }

 private:
  std::mutex mutex_;
  std::array<Session, 3> sessions_;
};

/// Counts the sessions that have gone by what they say at their end.
class Departures {
 public:
  void note() {
    const std::lock_guard lock(mutex_);
    ++count_;
    changed_.notify_all();
  }
  [[nodiscard]] bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 30s, [&] { return count_ >= count; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t count_ = 0;
};

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

/// An application that uses its session, ends it and lets go of it from inside every delegate method.
struct MeddlingDelegate : ZelLiveSessionDelegate {
  explicit MeddlingDelegate(std::shared_ptr<Sessions> all) : sessions(std::move(all)) {}
  void meddle(ZelLiveSession& session) {
    ask(session);
    session.setDenoiseLevel(1 + dice() % 3);
    session.turnOffVideo(oneIn(4));
    if (oneIn(100)) {
      session.stopLive();
    }
    if (oneIn(100)) {
      sessions->replace(dice(), nullptr);
    }
  }
  void liveSessionLiveStateDidChange(ZelLiveSession& session, std::uint64_t) override { meddle(session); }
  void liveSessionErrorCode(ZelLiveSession& session, std::uint64_t) override { meddle(session); }
  void liveSessionLiveBufferCount(ZelLiveSession& session, std::uint64_t) override { meddle(session); }
  void liveSessionDebugInfo(ZelLiveSession& session, const ZelLiveDebug&) override { meddle(session); }

  const std::shared_ptr<Sessions> sessions;
};

/// A log handler that asks sessions, and now and then ends one, in the middle of whatever logs.
class MeddlingLog {
 public:
  /// Keeps what it uses: it may still be running on some thread when it has been replaced.
  MeddlingLog(std::shared_ptr<Sessions> sessions, std::shared_ptr<Departures> departures) {
    setLogHandler([sessions = std::move(sessions), departures = std::move(departures)](LogLevel, std::string_view, int,
                                                                                       std::string_view message) {
      if (message.starts_with("Live: dealloc <ZelLiveSession:")) {
        departures->note();
      }
      thread_local bool inside = false;
      if (inside) {
        return;
      }
      inside = true;
      if (const auto session = sessions->take(dice())) {
        ask(*session);
        if (oneIn(2000)) {
          session->suspendLive();
        }
      }
      inside = false;
    });
  }
  ~MeddlingLog() { setLogHandler({}); }
};

std::shared_ptr<ZelLiveSession> startedSession(const std::string& url,
                                               const std::shared_ptr<ZelLiveSessionDelegate>& delegate) {
  constexpr std::int64_t type = ZelLiveInputAudio | ZelLiveInputVideo;
  auto audio = ZelLiveAudioConfiguration::defaultConfiguration();
  auto video = ZelLiveVideoConfiguration::defaultConfigurationForQuality(ZelLiveVideoQualityLow, type);
  video->setVideoSize({64, 64});
  auto session = ZelLiveSession::create(audio, video, type);
  session->setDelegate(delegate);
  session->setShowDebugInfo(true);
  session->setAdaptiveBitRate(true);
  session->setReconnectInterval(1);
  session->setVideoEncoderOptions({"libx264", "ultrafast"});
  auto info = std::make_shared<ZelLiveStreamInfo>();
  info->setUrl(url);
  info->roomId = "room";
  info->audioConfiguration = audio;
  info->videoConfiguration = video;
  session->startLive(info);
  return session;
}

TEST(SessionStress, SessionsMayBeUsedEndedAndDestroyedByAnyThreadAtAnyTime) {
  WireServer server;
  const auto sessions = std::make_shared<Sessions>();
  const auto departures = std::make_shared<Departures>();
  std::atomic<std::size_t> made = 0;
  {
    const MeddlingLog log(sessions, departures);
    const auto delegate = std::make_shared<MeddlingDelegate>(sessions);
    std::atomic<bool> over = false;
    const auto repeat = [&](std::function<void(ZelLiveSession&)> action) {
      return std::thread([&, action = std::move(action)] {
        while (!over) {
          if (const auto session = sessions->take(dice())) {
            action(*session);
          }
          std::this_thread::sleep_for(std::chrono::microseconds(dice() % 1000));
        }
      });
    };
    const auto pushAudio = [](ZelLiveSession& session) {
      session.pushAudio(std::vector<std::uint8_t>(oneIn(50) ? 1 : dice() % 4096));
    };
    const auto pushPicture = [](ZelLiveSession& session) {
      session.pushVideo(
          PixelBuffer::create(oneIn(2) ? PixelFormat::BGRA : PixelFormat::Planar, 64, oneIn(50) ? 32 : 64));
    };
    const auto notifications = defaultPlatform()->notifications;
    std::vector<std::thread> threads;
    threads.push_back(repeat(pushAudio));
    threads.push_back(repeat(pushAudio));
    threads.push_back(repeat(pushPicture));
    threads.push_back(repeat(pushPicture));
    threads.push_back(repeat([](ZelLiveSession& session) {
      oneIn(2) ? session.turnOffAudio(oneIn(4)) : session.turnOffVideo(oneIn(4));
      session.setDenoiseLevel(dice() % 5);
      ask(session);
    }));
    threads.push_back(repeat([&](ZelLiveSession& session) {
      notifications->post(oneIn(4) ? notification::DidEnterBackground : notification::WillEnterForeground);
      session.setRunning(oneIn(2));
      if (oneIn(100)) {
        server.cut();
      }
    }));
    threads.push_back(repeat([](ZelLiveSession& session) {
      if (oneIn(100)) {
        oneIn(2) ? session.stopLive() : session.suspendLive();
        EXPECT_TRUE(oneIn(2) || session.waitUntilStopped(10s));
      }
    }));
    for (const auto end = std::chrono::steady_clock::now() + 1500ms; std::chrono::steady_clock::now() < end;) {
      sessions->replace(made++, startedSession(server.url(), delegate));
      std::this_thread::sleep_for(std::chrono::milliseconds(dice() % 100));
    }
    over = true;
    for (auto& thread : threads) {
      thread.join();
    }
    for (std::size_t index = 0; index < 3; ++index) {
      sessions->replace(index, nullptr);
    }
    EXPECT_TRUE(departures->waitFor(made)) << "some of " << made << " sessions never ended";
  }
  EXPECT_FALSE(server.media().empty()) << "nothing was ever published";
  EXPECT_TRUE(server.waitUntil([&] { return server.closed() == server.connections(); })) << "a connection stays open";
  EXPECT_TRUE(server.wellFormed());
}

}  // namespace
}  // namespace zellive::test
