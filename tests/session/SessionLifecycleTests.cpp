#include <atomic>

#include "tests/session/SessionFixture.h"
#include "tests/support/Event.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

TEST_F(SessionTest, RefusesATypeWhoseConfigurationIsMissing) {
  const auto refusal = [&](std::int64_t type, const auto& sound, const auto& pictures) -> std::string {
    try {
      (void)ZelLiveSession::create(sound, pictures, type, manual.platform());
    } catch (const ZelException& exception) {
      return exception.name() + " " + exception.reason();
    }
    return "";
  };
  EXPECT_EQ(refusal(ZelLiveInputAudio, nullptr, video), "ZelLiveSession init error. audioConfiguration is nil.");
  EXPECT_EQ(refusal(ZelLiveInputVideo, audio, nullptr), "ZelLiveSession init error. videoConfiguration is nil.");
  EXPECT_EQ(refusal(ZelLiveInputAudio, audio, nullptr), "");
}

TEST_F(SessionTest, RunsFromTheStartOverAReconnectionToTheEnd) {
  make(kPushed);
  session->setDelegate(delegate);
  info->roomId = "room";
  session->startLive(nullptr);
  session->startLive(info);
  session->startLive(std::make_shared<ZelLiveStreamInfo>());
  EXPECT_EQ(session->streamInfo(), info);
  EXPECT_EQ(log.count(LogLevel::Warning, "Live: this session has started already"), 1U);
  EXPECT_TRUE(info->audioConfiguration == audio && info->videoConfiguration == video);

  // Nothing is taken before the connection, and checks tell of it.
  manual.runPending();
  EXPECT_EQ(encoder->made, 1) << "the encoder is made while the connection is";
  pushAudio(10);
  pushPicture(10);
  (void)heard();
  manual.advance(9999ms);
  EXPECT_EQ(heard(), "");
  manual.advance(1ms);
  EXPECT_EQ(heard(), "state 20, state 21, ");
  EXPECT_EQ(log.count(LogLevel::Warning, "Live: audioCheck has been no audio streaming since the beginning"), 1U);
  EXPECT_EQ(log.count(LogLevel::Warning, "Live: videoCheck has been no video streaming since the beginning"), 1U);
  EXPECT_EQ(encoder->trace, "");

  report(ZelStreamSocketStatusConnected);
  EXPECT_EQ(heard(), "state 2, ");
  EXPECT_EQ(session->state(), 2U);
  manual.advance(9999ms);
  EXPECT_TRUE(room->figures.empty());
  manual.advance(1ms);
  ASSERT_EQ(room->figures.size(), 1U);
  const auto number = [&](const char* key) { return std::get<double>(room->figures.front().at(key).value); };
  EXPECT_EQ(std::tuple(number("videoFPS"), number("audioFPS"), number("bitRate")), (std::tuple{24, 47, 1664000}));
  EXPECT_EQ(std::tuple(number("width"), number("height")), (std::tuple{720, 1280}));

  // A stream opens with a key frame that follows sound; the first sound asks for it.
  pushPicture(2);
  pushAudio(2);
  EXPECT_EQ(take(), "");
  EXPECT_TRUE(room->statuses.empty());
  pushPicture(2);
  pushAudio(1);
  EXPECT_EQ(take(), "K42 p42 a42 ");
  EXPECT_EQ(encoder->trace, "SpSp");

  // A reconnection asks for a key frame and leaves the clock alone.
  report(ZelStreamSocketStatusReconnecting);
  report(ZelStreamSocketStatusConnected);
  pushAudio(1);
  pushPicture(2);
  EXPECT_EQ(take(), "a64 K85 p85 ");
  EXPECT_EQ(room->statuses, std::vector<std::string>{"room INLIVE"});
  report(ZelStreamSocketStatusError);
  EXPECT_EQ(room->statuses.back(), "room SUSPEND");
  report(ZelStreamSocketStatusStopped);
  pushAudio(2);
  EXPECT_EQ(take(), "");
}

TEST_F(SessionTest, WhatThePublisherTellsReachesTheApplication) {
  connect(kPushed);
  session->socketDidErrorCode(*publisher, ZelStreamSocketErrorReconnectExhausted);
  report(ZelStreamSocketStatusError);
  EXPECT_EQ(session->state(), 4U);
  session->socketBufferStatusBufferCount(*publisher, 17);
  ZelLiveDebug debug;
  debug.totalFrame = 9;
  session->socketDebugInfo(*publisher, debug);
  EXPECT_EQ(session->debugInfo()->totalFrame, 9);
  session->setShowDebugInfo(true);
  session->socketDebugInfo(*publisher, debug);
  EXPECT_EQ(heard(), "count 17 elsewhere, error 205, state 4, figures, ");
}

TEST_F(SessionTest, AdaptiveBitRateClimbsGentlyAndFallsTwiceAsSteeply) {
  connect(kPushed);
  const auto told = [&](ZelStreamingBufferState state, int times) {
    std::string rates;
    encoder->rates.clear();
    for (; times > 0; --times) {
      session->socketBufferStatus(*publisher, state);
    }
    for (const auto& [rate, limit, seconds] : encoder->rates) {
      rates += std::to_string(rate / 1000) + " ";
    }
    return rates;
  };
  EXPECT_EQ(told(ZelStreamingBufferStateDecrease, 1), "") << "not switched on";
  session->setAdaptiveBitRate(true);
  video->setVideoMaxBitRate(1686000);
  EXPECT_EQ(told(ZelStreamingBufferStateDecrease, 9), "1586 1636 1686 ");
  video->setVideoMinBitRate(1386000);
  EXPECT_EQ(told(ZelStreamingBufferStateIncrease, 9), "1586 1486 1386 ");
  video->setVideoMinBitRate(1286001);
  EXPECT_EQ(told(ZelStreamingBufferStateIncrease, 9), "1286 ") << "a step may pass the bound";
  video->setVideoMinBitRate(0);
  (void)told(ZelStreamingBufferStateIncrease, 20);
  EXPECT_EQ(session->videoBitRate(), 86000U) << "another step would leave nothing";
}

TEST_F(SessionTest, AStoppedSessionIsSpent) {
  for (const bool suspend : {false, true}) {
    info->roomId = "room";
    connect(kPushed);
    align();
    room->statuses.clear();
    manual.advance(suspend ? 11s : 5s);
    suspend ? session->suspendLive() : session->stopLive();
    suspend ? session->suspendLive() : session->stopLive();
    manual.runPending();
    EXPECT_EQ(log.count(suspend ? "Live: Suspend Live" : "Live: Stop Live"), 1U);
    // The room id goes with the stream info before either report is made.
    EXPECT_TRUE(room->statuses.empty());
    EXPECT_EQ(room->stops.size(), 1U);
    EXPECT_FALSE(room->stops.front());
    EXPECT_EQ(session->streamInfo(), nullptr);
    EXPECT_TRUE(session->waitUntilStopped(0ms));
    // Whatever comes now is ignored, late callbacks of the stages included.
    session->startLive(info);
    session->turnOffAudio(true);
    report(ZelStreamSocketStatusConnected);
    pushAudio(4);
    pushPicture(2);
    manual.advance(11s);
    EXPECT_EQ(take(), "");
    EXPECT_EQ(log.count("since the beginning"), 0U) << "media flowed";
  }
}

TEST_F(SessionTest, DestroyingASessionLeavesNothingBehind) {
  connect(kPushed);
  align();
  session->turnOffAudio(true);
  session->turnOffVideo(true);
  manual.notifications->post(notification::DidEnterBackground);
  session.reset();
  manual.advance(30s);
  EXPECT_EQ(manual.time->delayedWork(), 0U);
  EXPECT_EQ(manual.time->liveQueues(), (std::vector<std::string>{"main", "global"}));
  manual.notifications->post(notification::WillEnterForeground);
}

TEST_F(SessionTest, AFreshUrlReachesTheStream) {
  connect(kPushed);
  room->urlRequests.clear();
  session->socketRequestNewUrl(*publisher);
  ASSERT_EQ(room->urlRequests.size(), 1U);
  room->urlRequests[0]({"busy"}, 867, std::nullopt);
  manual.runPending();
  ASSERT_EQ(room->urlRequests.size(), 2U) << "asked again at once";
  const auto answer = room->urlRequests[1];
  answer({"broken"}, 500, std::nullopt);
  answer({}, 200, std::nullopt);
  answer({}, 200, QMZDictionary{{"url", {3.0}}});
  manual.runPending();
  EXPECT_EQ(room->urlRequests.size(), 2U);
  EXPECT_EQ(info->url(), "not a url");
  answer({}, 200, QMZDictionary{{"url", {std::string("rtmp://new/app/key")}}});
  session.reset();
  answer({}, 200, QMZDictionary{{"url", {std::string("rtmp://late/app/key")}}});
  EXPECT_EQ(info->url(), "rtmp://new/app/key");
}

// ---- While something that the session has called takes its time

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
