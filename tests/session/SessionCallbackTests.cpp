// Calls into the session from inside the application's own callbacks, and while one of these takes its time.
#include <atomic>
#include <thread>

#include "tests/session/SessionFixture.h"
#include "tests/support/Event.h"

namespace zellive::test {
namespace {

/// Runs `action` inside each message that contains `part`.
class ActingLog {
 public:
  ActingLog(std::string part, std::function<void()> action) {
    setLogHandler([part = std::move(part), action = std::move(action)](LogLevel, std::string_view, int,
                                                                       std::string_view message) {
      if (message.find(part) != std::string_view::npos) {
        action();
      }
    });
  }
  ~ActingLog() { setLogHandler({}); }
};

TEST_F(SessionTest, ALogHandlerMayAskAndEndTheSession) {
  int heard = 0;
  const auto ask = [&] {
    ++heard;
    (void)session->streamInfo();
    (void)session->denoiseLevel();
    session->setDelegate(delegate);
  };
  {
    const ActingLog log("Live: createCompressionSession", ask);
    connect(kPushed);
  }
  align();
  {
    const ActingLog log("started already", ask);
    session->startLive(info);
  }
  {
    const ActingLog log("do not have the shape", [&] {
      ask();
      session->pushVideo(PixelBuffer::create(PixelFormat::Planar, 72, 128));
    });
    session->pushVideo(PixelBuffer::create(PixelFormat::Planar, 128, 72));
  }
  {
    const ActingLog log("Live: Stop Live", [&] {
      ask();
      session->stopLive();
      session->suspendLive();
    });
    session->stopLive();
  }
  EXPECT_EQ(companion->account->stops.size(), 1U);
  {
    const ActingLog log("has ended", ask);
    session->startLive(info);
  }
  EXPECT_EQ(heard, 5);
}

/// Real queues under instant encoders, and an account that does not answer before the test lets it.
class BusySessionTest : public SessionTest {
 protected:
  struct SlowAccount : ScriptedAccount {
    void liveUpdateStatus(const QMZDictionary&) override {
      asked.set();
      (void)release.wait();
      over = true;
    }
    Event asked;
    Event release;
    std::atomic<bool> over = false;
  };
  struct SlowVideoEncoder : InstantVideoEncoder {
    std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings& settings,
                                                    VideoCompressionSession::OutputHandler output,
                                                    int& status) override {
      ++made;
      asked.set();
      (void)release.wait();
      over = true;
      return InstantVideoEncoder::create(settings, std::move(output), status);
    }
    std::atomic<int> made = 0;
    Event asked;
    Event release;
    std::atomic<bool> over = false;
  };

  void connectOnRealQueues(std::int64_t type) {
    auto platform = std::make_shared<Platform>(*manual.platform());
    platform->queues = defaultPlatform()->queues;
    platform->clock = defaultPlatform()->clock;
    session = std::make_shared<ObservedSession>(audio, video, type, platform);
    session->startLive(info);
    session->socketStatus(*session->publisher, ZelStreamSocketStatusConnected);
  }
};

TEST_F(BusySessionTest, StoppingDoesNotWaitForAFillerThatIsInTheApplicationsHands) {
  const auto account = std::make_shared<SlowAccount>();
  companion->account = account;
  info->roomId = "room";
  connectOnRealQueues(ZelLiveInputAudio);
  session->turnOffAudio(true);
  ASSERT_TRUE(account->asked.wait());
  session->stopLive();
  EXPECT_FALSE(account->over) << "stopLive came back only when the account did";
  account->release.set();
}

TEST_F(BusySessionTest, NothingWaitsWhileTheVideoEncoderIsMade) {
  const auto encoder = std::make_shared<SlowVideoEncoder>();
  manual.videoCompression = encoder;
  connectOnRealQueues(kPushed);
  const auto picture = PixelBuffer::create(PixelFormat::Planar, 72, 128);
  std::thread maker([&] { session->pushVideo(picture); });
  ASSERT_TRUE(encoder->asked.wait());
  pushAudio(2);
  session->setDenoiseLevel(2);
  session->pushVideo(picture);
  session->stopLive();
  EXPECT_FALSE(encoder->over) << "a call came back only when the encoder was made";
  EXPECT_EQ(encoder->made, 1) << "a picture made an encoder of its own";
  encoder->release.set();
  maker.join();
}

}  // namespace
}  // namespace zellive::test
