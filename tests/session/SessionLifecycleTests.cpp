#include <atomic>

#include "tests/session/SessionFixture.h"
#include "tests/support/Event.h"

namespace zellive::test {
namespace {

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

  // A stream opens with a key frame that follows sound; the first sound asks for it.
  report(ZelStreamSocketStatusConnected);
  EXPECT_EQ(heard(), "state 2, ");
  pushPicture(2);
  pushAudio(2);
  EXPECT_EQ(take() + room->told, "");
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
  manual.advance(9999ms);
  EXPECT_EQ(room->told, "INLIVE ");
  manual.advance(1ms);
  EXPECT_EQ(room->told, "INLIVE 24 47 1664000 720 1280 ");
  report(ZelStreamSocketStatusError);
  EXPECT_EQ(room->told, "INLIVE 24 47 1664000 720 1280 SUSPEND ");
  report(ZelStreamSocketStatusStopped);
  pushAudio(2);
  EXPECT_EQ(take(), "");
}

TEST_F(SessionTest, WhatThePublisherTellsReachesTheApplication) {
  connect(kPushed);
  ZelLiveDebug debug;
  debug.totalFrame = 9;
  session->socketDebugInfo(*publisher, debug);
  session->setShowDebugInfo(true);
  session->socketDebugInfo(*publisher, debug);
  session->socketDidErrorCode(*publisher, ZelStreamSocketErrorReconnectExhausted);
  report(ZelStreamSocketStatusError);
  EXPECT_EQ(session->state(), 4U);
  session->socketBufferStatusBufferCount(*publisher, 17);
  EXPECT_EQ(heard(), "count 17 elsewhere, figures 9, error 205, state 4, ");
  EXPECT_EQ(session->debugInfo()->totalFrame, 9);
}

TEST_F(SessionTest, AdaptiveBitRateClimbsGentlyAndFallsTwiceAsSteeply) {
  connect(kPushed);
  const auto told = [&](ZelStreamingBufferState state, int times, std::uint64_t bound = 0) {
    state == ZelStreamingBufferStateIncrease ? video->setVideoMinBitRate(bound) : video->setVideoMaxBitRate(bound);
    encoder->rates.clear();
    for (; times > 0; --times) {
      session->socketBufferStatus(*publisher, state);
    }
    std::string rates;
    for (const auto& [rate, limit, seconds] : encoder->rates) {
      rates += std::to_string(rate / 1000) + " ";
    }
    return rates;
  };
  EXPECT_EQ(told(ZelStreamingBufferStateDecrease, 1, 1686000), "") << "not switched on";
  session->setAdaptiveBitRate(true);
  EXPECT_EQ(told(ZelStreamingBufferStateDecrease, 9, 1686000), "1586 1636 1686 ");
  EXPECT_EQ(told(ZelStreamingBufferStateIncrease, 9, 1386000), "1586 1486 1386 ");
  EXPECT_EQ(told(ZelStreamingBufferStateIncrease, 9, 1286001), "1286 ") << "a step may pass the bound";
  (void)told(ZelStreamingBufferStateIncrease, 20);
  EXPECT_EQ(session->videoBitRate(), 86000U) << "another step would leave nothing";
}

TEST_F(SessionTest, AStoppedSessionIsSpentAndADestroyedOneLeavesNothingBehind) {
  for (const bool suspend : {false, true}) {
    info->roomId = "room";
    connect(kPushed);
    align();
    room->told.clear();
    manual.advance(5s);
    for (int times = 0; times < 2; ++times) {
      suspend ? session->suspendLive() : session->stopLive();
    }
    manual.runPending();
    EXPECT_EQ(log.count(suspend ? "Live: Suspend Live" : "Live: Stop Live"), 1U);
    EXPECT_EQ(room->told, suspend ? "" : "stop -")
        << "the room id goes with the stream info before either report is made";
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
  connect(kPushed);
  align();
  session->turnOffAudio(true);
  session->turnOffVideo(true);
  post(notification::DidEnterBackground);
  session.reset();
  manual.advance(30s);
  EXPECT_EQ(manual.time->delayedWork(), 0U);
  EXPECT_EQ(manual.time->liveQueues(), (std::vector<std::string>{"main", "global"}));
  post(notification::WillEnterForeground);
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

/// On real queues, the account or the making of the encoder takes until the test lets it go.
TEST_F(SessionTest, NothingWaitsForTheAccountOrTheMakingOfAnEncoder) {
  auto platform = std::make_shared<Platform>(*manual.platform());
  platform->queues = defaultPlatform()->queues;
  platform->clock = defaultPlatform()->clock;
  const auto picture = PixelBuffer::create(PixelFormat::Planar, 72, 128);
  for (const bool account : {false, true}) {
    const auto begun = std::make_shared<Event>();
    const auto release = std::make_shared<Event>();
    const auto over = std::make_shared<std::atomic<bool>>(false);
    (account ? room->onStatus : encoder->onMaking) = [=] {
      begun->set();
      (void)release->wait();
      *over = true;
    };
    make(account ? ZelLiveInputAudio | 0 : kPushed, platform);
    session->setDelegate({});
    session->startLive(info);
    report(ZelStreamSocketStatusConnected);
    const std::jthread maker([&, of = session] { of->pushVideo(picture); });
    session->turnOffAudio(account);
    ASSERT_TRUE(begun->wait());
    pushAudio(2);
    session->setDenoiseLevel(2);
    session->pushVideo(picture);
    session->stopLive();
    EXPECT_FALSE(*over) << "a call came back only when what it does not need was done";
    EXPECT_EQ(encoder->made, 1) << "a picture made an encoder of its own";
    release->set();
  }
}

}  // namespace
}  // namespace zellive::test
