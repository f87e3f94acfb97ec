#include <algorithm>

#include "tests/session/SessionFixture.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

TEST_F(SessionTest, RefusesATypeWhoseConfigurationIsMissing) {
  struct Case {
    std::int64_t type;
    bool audio, video;
    const char* reason;  // Null: accepted.
  };
  const Case cases[] = {{5, false, true, "audioConfiguration is nil."},
                        {1, false, true, "audioConfiguration is nil."},
                        {8, true, false, "videoConfiguration is nil."},
                        {2, true, false, "videoConfiguration is nil."},
                        {12, false, false, "audioConfiguration is nil."},
                        {32, true, false, nullptr},
                        {48, false, false, nullptr},
                        {4, true, false, nullptr},
                        {8, false, true, nullptr}};
  for (const auto& c : cases) {
    const auto make = [&] {
      return ZelLiveSession::create(c.audio ? audio : nullptr, c.video ? video : nullptr, c.type, manual.platform());
    };
    if (!c.reason) {
      EXPECT_NO_THROW(EXPECT_NE(make(), nullptr)) << c.type;
      continue;
    }
    try {
      (void)make();
      FAIL() << "type " << c.type << " was accepted";
    } catch (const ZelException& exception) {
      EXPECT_EQ(exception.name(), "ZelLiveSession init error.");
      EXPECT_EQ(exception.reason(), c.reason);
    }
  }
}

TEST_F(SessionTest, StartsOnceAndOnlyWithAStream) {
  make(kPushed);
  info->videoConfiguration = nullptr;
  session->startLive(nullptr);
  EXPECT_EQ(session->streamInfo(), nullptr);
  session->startLive(info);
  const auto publisher = session->publisher;
  session->startLive(std::make_shared<ZelLiveStreamInfo>());
  EXPECT_EQ(session->publisher, publisher);
  EXPECT_EQ(session->streamInfo(), info);
  EXPECT_EQ(info->videoConfiguration, video);
}

TEST_F(SessionTest, OnlyTheFirstConnectionResetsTheClock) {
  connect(kPushed);
  pushAudio(4);
  align();
  session->socketStatus(*session->publisher, ZelStreamSocketStatusReconnecting);
  session->socketStatus(*session->publisher, ZelStreamSocketStatusConnected);
  pushAudio(2);
  ASSERT_FALSE(session->handedOff.empty());
  EXPECT_EQ(session->handedOff.back()->timestamp, 149U) << "8 blocks in, 7 of them encoded";
  session->socketStatus(*session->publisher, ZelStreamSocketStatusStopped);
  session->handedOff.clear();
  pushAudio(2);
  EXPECT_TRUE(session->handedOff.empty());
}

TEST_F(SessionTest, AConnectionAsksTheEncoderForAKeyFrame) {
  connect(kPushed);
  align();
  pushPicture(3);
  session->socketStatus(*session->publisher, ZelStreamSocketStatusConnected);
  videoEncoder->keyFrames.clear();
  pushPicture(2);
  EXPECT_EQ(videoEncoder->keyFrames, (std::vector<bool>{true, false}));
}

TEST_F(SessionTest, StatesErrorsAndStatisticsArriveOnTheMainQueue) {
  make(kPushed);
  session->startLive(info);
  session->socketDidErrorCode(*session->publisher, ZelStreamSocketErrorReconnectExhausted);
  session->socketStatus(*session->publisher, ZelStreamSocketStatusError);
  EXPECT_EQ(session->state(), 4U);
  EXPECT_TRUE(delegate->errors.empty()) << "called on the publisher's thread";
  session->socketBufferStatusBufferCount(*session->publisher, 17);
  EXPECT_EQ(delegate->counts, std::vector<std::uint64_t>{17}) << "called later";
  ZelLiveDebug debug;
  debug.totalFrame = 9;
  session->socketDebugInfo(*session->publisher, debug);
  manual.runPending();
  EXPECT_EQ(delegate->errors, std::vector<std::uint64_t>{205});
  EXPECT_EQ(delegate->states.front(), 4U);
  EXPECT_TRUE(delegate->infos.empty()) << "statistics were not asked for";
  EXPECT_EQ(session->debugInfo()->totalFrame, 9);
  session->setShowDebugInfo(true);
  session->socketDebugInfo(*session->publisher, debug);
  manual.runPending();
  ASSERT_EQ(delegate->infos.size(), 1U);
}

TEST_F(SessionTest, AdaptiveBitRateClimbsGentlyAndFallsTwiceAsSteeply) {
  connect(kPushed);
  align();
  const auto report = [&](ZelStreamingBufferState state, int times) {
    videoEncoder->bitRates.clear();
    for (int i = 0; i < times; ++i) {
      session->socketBufferStatus(*session->publisher, state);
    }
    return videoEncoder->bitRates;
  };
  EXPECT_TRUE(report(ZelStreamingBufferStateDecrease, 1).empty()) << "not switched on";
  session->setAdaptiveBitRate(true);
  EXPECT_EQ(report(ZelStreamingBufferStateDecrease, 8),
            (std::vector<std::int64_t>{1586000, 1636000, 1686000, 1736000, 1786000}));
  EXPECT_EQ(report(ZelStreamingBufferStateIncrease, 9),
            (std::vector<std::int64_t>{1686000, 1586000, 1486000, 1386000, 1286000, 1186000}));
  EXPECT_EQ(session->videoBitRate(), 1186000U);
}

TEST_F(SessionTest, ChecksTellOfASourceThatNeverCame) {
  LogCapture log;
  connect(kPushed);
  manual.advance(9999ms);
  EXPECT_TRUE(delegate->states.empty() || delegate->states.back() < 20);
  manual.advance(1ms);
  EXPECT_EQ(log.count(LogLevel::Warning, "Live: audioCheck has been no audio streaming since the beginning"), 1U);
  EXPECT_EQ(log.count(LogLevel::Warning, "Live: videoCheck has been no video streaming since the beginning"), 1U);
  EXPECT_EQ(std::count(delegate->states.begin(), delegate->states.end(), 20U), 1);
  EXPECT_EQ(std::count(delegate->states.begin(), delegate->states.end(), 21U), 1);
}

TEST_F(SessionTest, ChecksAreSilentWhenMediaFlowsAndAfterTheEnd) {
  for (const bool end : {false, true}) {
    LogCapture log;
    connect(kPushed);
    if (end) {
      session->suspendLive();
    } else {
      align();
    }
    manual.advance(11s);
    EXPECT_EQ(log.count("since the beginning"), 0U) << end;
  }
}

TEST_F(SessionTest, AStoppedSessionIsSpent) {
  for (const bool suspend : {false, true}) {
    LogCapture log;
    info->roomId = "room";
    companion->account->stops.clear();
    connect(kPushed);
    align();
    const auto publisher = session->publisher;
    companion->account->statuses.clear();
    suspend ? session->suspendLive() : session->stopLive();
    suspend ? session->suspendLive() : session->stopLive();
    manual.runPending();
    EXPECT_EQ(log.count(suspend ? "Live: Suspend Live" : "Live: Stop Live"), 1U);
    // The room id goes with the stream info before either report is made.
    EXPECT_TRUE(companion->account->statuses.empty());
    EXPECT_EQ(companion->account->stops.size(), suspend ? 0U : 1U);
    EXPECT_TRUE(suspend || !companion->account->stops.front());
    EXPECT_EQ(session->streamInfo(), nullptr);
    EXPECT_TRUE(session->waitUntilStopped(0ms));
    // Whatever comes now is ignored, late callbacks of the stages included.
    session->handedOff.clear();
    session->startLive(info);
    pushAudio(4);
    pushPicture(2);
    session->turnOffAudio(true);
    session->socketStatus(*publisher, ZelStreamSocketStatusConnected);
    pushAudio(4);
    pushPicture(2);
    manual.advance(5s);
    EXPECT_TRUE(session->handedOff.empty());
    session->publisher.reset();
  }
}

TEST_F(SessionTest, DestroyingASessionLeavesNothingBehind) {
  connect(kPushed);
  align();
  session->turnOffAudio(true);
  session->turnOffVideo(true);
  manual.notifications->post(notification::DidEnterBackground);
  session->publisher.reset();
  session.reset();
  manual.advance(30s);
  EXPECT_EQ(manual.time->delayedWork(), 0U);
  EXPECT_EQ(manual.time->liveQueues(), (std::vector<std::string>{"main", "global"}));
  manual.notifications->post(notification::WillEnterForeground);
}

TEST_F(SessionTest, RunningAndPositionAreObservable) {
  make(kPushed);
  std::vector<std::int64_t> seen;
  const auto observation =
      session->observe("running", [&](const UserInfo& change) { seen.push_back(change.at("new")); });
  session->setRunning(false);
  session->setRunning(true);
  session->setRunning(true);
  session->setRunning(false);
  session->setCaptureDevicePosition(2);
  EXPECT_EQ(seen, (std::vector<std::int64_t>{1, 0}));
}

// ---- Live room

TEST_F(SessionTest, TellsTheRoomOfTheFirstFrameAndOfErrors) {
  info->roomId = "room";
  connect(kPushed);
  auto& statuses = companion->account->statuses;
  EXPECT_TRUE(statuses.empty());
  align();
  pushAudio(4);
  ASSERT_EQ(statuses.size(), 1U);
  EXPECT_EQ(std::get<std::string>(statuses[0].at("liveStatus").value), "INLIVE");
  EXPECT_EQ(std::get<std::string>(statuses[0].at("roomId").value), "room");
  session->socketStatus(*session->publisher, ZelStreamSocketStatusError);
  ASSERT_EQ(statuses.size(), 2U);
  EXPECT_EQ(std::get<std::string>(statuses[1].at("liveStatus").value), "SUSPEND");
}

TEST_F(SessionTest, PostsFiguresEveryTenSecondsWhileUploading) {
  make(kPushed);
  session->startLive(info);
  manual.advance(20s);
  EXPECT_TRUE(companion->account->figures.empty());
  session->socketStatus(*session->publisher, ZelStreamSocketStatusConnected);
  manual.advance(20s);
  ASSERT_EQ(companion->account->figures.size(), 2U);
  const auto& figures = companion->account->figures.front();
  const auto number = [&](const char* key) { return std::get<double>(figures.at(key).value); };
  EXPECT_EQ(number("videoFPS"), 24);
  EXPECT_EQ(number("audioFPS"), 47);
  EXPECT_EQ(number("bitRate"), 1536000 + 128000);
  EXPECT_EQ(number("width"), 720);
  EXPECT_EQ(number("height"), 1280);
}

TEST_F(SessionTest, AFreshUrlReachesTheStream) {
  connect(kPushed);
  info->roomId = "room";
  auto& account = *companion->account;
  account.pending.clear();
  session->socketRequestNewUrl(*session->publisher);
  ASSERT_EQ(account.pending.size(), 1U);
  account.pending[0]({"busy"}, 867, std::nullopt);
  manual.runPending();
  ASSERT_EQ(account.pending.size(), 2U) << "asked again at once";
  account.pending[1]({"broken"}, 500, std::nullopt);
  account.pending[1]({}, 200, std::nullopt);
  account.pending[1]({}, 200, QMZDictionary{{"url", {3.0}}});
  manual.runPending();
  EXPECT_EQ(account.pending.size(), 2U);
  EXPECT_EQ(info->url(), "not a url");
  account.pending[1]({}, 200, QMZDictionary{{"url", {std::string("rtmp://new/app/key")}}});
  EXPECT_EQ(info->url(), "rtmp://new/app/key");
  session->publisher.reset();
  session.reset();
  account.pending[1]({}, 200, QMZDictionary{{"url", {std::string("rtmp://late/app/key")}}});
  EXPECT_EQ(info->url(), "rtmp://new/app/key");
}

}  // namespace
}  // namespace zellive::test
