// Calls into the session while something that it has called takes its time.
#include <thread>

#include "tests/session/SessionFixture.h"
#include "tests/support/Event.h"

namespace zellive::test {
namespace {

/// Real queues, and a callback that takes until the test lets it go.
class BusySessionTest : public SessionTest {
 protected:
  struct Slow {
    Event begun;
    Event release;
    std::atomic<bool> over = false;
  };
  std::function<void()> waits() {
    return [slow = slow] {
      slow->begun.set();
      (void)slow->release.wait();
      slow->over = true;
    };
  }
  void connectOnRealQueues(std::int64_t type) {
    auto platform = std::make_shared<Platform>(*manual.platform());
    platform->queues = defaultPlatform()->queues;
    platform->clock = defaultPlatform()->clock;
    make(type, platform);
    session->startLive(info);
    report(ZelStreamSocketStatusConnected);
  }
  const std::shared_ptr<Slow> slow = std::make_shared<Slow>();
};

TEST_F(BusySessionTest, StoppingDoesNotWaitForAFillerThatIsInTheApplicationsHands) {
  room->onStatus = waits();
  info->roomId = "room";
  connectOnRealQueues(ZelLiveInputAudio);
  session->turnOffAudio(true);
  ASSERT_TRUE(slow->begun.wait());
  session->stopLive();
  EXPECT_FALSE(slow->over) << "stopLive came back only when the account did";
  slow->release.set();
}

TEST_F(BusySessionTest, NothingWaitsWhileTheVideoEncoderIsMade) {
  encoder->onMaking = waits();
  connectOnRealQueues(kPushed);
  const auto picture = PixelBuffer::create(PixelFormat::Planar, 72, 128);
  const std::jthread maker([&] { session->pushVideo(picture); });
  ASSERT_TRUE(slow->begun.wait());
  pushAudio(2);
  session->setDenoiseLevel(2);
  session->pushVideo(picture);
  session->stopLive();
  EXPECT_FALSE(slow->over) << "a call came back only when the encoder was made";
  EXPECT_EQ(encoder->made, 1) << "a picture made an encoder of its own";
  slow->release.set();
}

}  // namespace
}  // namespace zellive::test
