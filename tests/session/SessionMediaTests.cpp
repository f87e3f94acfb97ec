#include <algorithm>
#include <array>
#include <limits>

#include "tests/session/SessionFixture.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

TEST_F(SessionTest, NothingIsTakenBeforeTheConnection) {
  make(kPushed);
  session->startLive(info);
  pushAudio(10);
  pushPicture(10);
  EXPECT_TRUE(videoEncoder->keyFrames.empty());
  EXPECT_TRUE(session->handedOff.empty());
}

TEST_F(SessionTest, AudioAloneFlowsAtOnceStampedWithTheEndOfItsSamples) {
  connect(ZelLiveInputAudio);
  pushAudio(3);
  ASSERT_EQ(session->handedOff.size(), 2U);
  // Units are complete when the pool has cut 960 and then 1024 bytes: the second push completes the first unit.
  EXPECT_EQ(session->handedOff[0]->timestamp, 21U);
  EXPECT_EQ(session->handedOff[1]->timestamp, 42U);
}

TEST_F(SessionTest, TheStreamOpensWithAKeyFrameThatFollowsAudio) {
  connect(kPushed);
  pushPicture(2);
  EXPECT_TRUE(session->handedOff.empty()) << "a key frame before any audio counts for nothing";
  pushAudio(2);
  EXPECT_TRUE(session->handedOff.empty());
  pushPicture(2);
  ASSERT_EQ(session->handedOff.size(), 2U) << "the first audio asks for a key frame at once";
  const auto& first = static_cast<const ZelLiveVideoFrame&>(*session->handedOff[0]);
  EXPECT_TRUE(first.isKeyFrame);
  EXPECT_EQ(first.timestamp, 42U);
  pushAudio(1);
  EXPECT_EQ(session->handedOff.size(), 3U);
}

TEST_F(SessionTest, APictureWhoseSeiCameTooEarlyIsDroppedWhole) {
  connect(kPushed);
  pushPicture();
  const auto encoder = ZelHardwareVideoEncoder::create(video, manual.platform());
  const auto nalUnit = [&](std::uint8_t type) {
    auto frame = std::make_shared<ZelLiveVideoFrame>();
    frame->isKeyFrame = true;
    frame->data = Data::copyOf(std::array<std::uint8_t, 2>{type, 1});
    session->videoEncoderVideoFrame(*encoder, frame);
  };
  nalUnit(0x06);
  pushAudio(2);
  nalUnit(0x65);
  EXPECT_TRUE(session->handedOff.empty()) << "the slice would be spent on the sequence header";
  nalUnit(0x06);
  nalUnit(0x65);
  EXPECT_EQ(session->handedOff.size(), 2U);
}

TEST_F(SessionTest, NoFrameIsOvertakenByMoreThanTheQueueSorts) {
  connect(kPushed);
  align();
  const auto picture = [] { return PixelBuffer::create(PixelFormat::Planar, 72, 128); };
  const auto& frames = session->handedOff;
  session->pushVideo(picture());
  pushAudio(4);
  EXPECT_GE(frames.size(), 4U) << "what the queue sorts is not held back";
  for (int late = 0; late < 5; ++late) {
    session->pushVideo(picture());
    pushAudio(4);
  }
  manual.runPending();  // Only now are the pictures encoded.
  EXPECT_GE(frames.size(), 30U) << "nothing is kept";
  for (auto frame = frames.begin(); frame != frames.end(); ++frame) {
    const auto overtook = [&](auto& earlier) { return earlier->timestamp > (*frame)->timestamp; };
    EXPECT_LE(std::count_if(frames.begin(), frame, overtook), 5);
  }
  session->pushVideo(picture());
  session->handedOff.clear();
  pushAudio(100);
  EXPECT_GE(frames.size(), 50U) << "an encoder that hangs does not silence the stream";
}

TEST_F(SessionTest, AnOddSampleRateOrChannelCountDoesNotChangeTheCountOfSamples) {
  connect(kPushed);
  auto format = session->inputAudioASBD();
  format.mSampleRate = 44100;
  format.mChannelsPerFrame = 2;
  session->setInputAudioASBD(format);
  session->pushAudio(std::vector<std::uint8_t>(4096));
  pushPicture();
  pushAudio();
  // 2048 samples at 44.1 kHz are 46.44 ms; 1024 more make 69.66 ms.
  pushPicture();
  ASSERT_FALSE(session->handedOff.empty());
  EXPECT_EQ(session->handedOff.back()->timestamp, 69U);
}

TEST_F(SessionTest, BadAudioIsRefusedAndHarmless) {
  connect(kPushed);
  auto format = session->inputAudioASBD();
  for (const double rate :
       {0.0, -1.0, std::numeric_limits<double>::quiet_NaN(), 1e-40, 1e30, std::numeric_limits<double>::infinity()}) {
    format.mSampleRate = rate;
    session->setInputAudioASBD(format);
    pushAudio(4);
    session->turnOffAudio(true);
    manual.runPending();
    session->turnOffAudio(false);
  }
  EXPECT_TRUE(session->handedOff.empty());
  format.mSampleRate = 48000;
  session->setInputAudioASBD(format);
  session->pushAudio({});
  session->pushAudio(std::vector<std::uint8_t>(1));
  session->pushAudio(std::vector<std::uint8_t>(10'000'001));
  align();
  pushAudio();
  EXPECT_FALSE(session->handedOff.empty());
}

TEST_F(SessionTest, PushedPicturesAreThinnedByTheWholeRatio) {
  struct Case {
    std::uint64_t pushed, configured;
    std::size_t taken;  // Of 12.
  };
  for (const auto& c : {Case{60, 30, 6}, {30, 24, 12}, {30, 10, 4}, {30, 0, 12}, {0, 30, 12}, {59, 30, 12}}) {
    videoEncoder->keyFrames.clear();
    video->setVideoFrameRate(c.configured);
    connect(kPushed);
    session->setInputVideoFrameRate(c.pushed);
    pushPicture(12);
    EXPECT_EQ(videoEncoder->keyFrames.size(), c.taken) << c.pushed << " to " << c.configured;
  }
}

TEST_F(SessionTest, PicturesThatCannotBeTakenAreRefused) {
  LogCapture log;
  connect(kPushed);
  std::array<std::uint8_t, 64 * 64 * 4> memory{};
  const auto foreign = [&](PixelFormat format, std::size_t width, std::size_t height) {
    return PixelBuffer::wrap(format, width, height, {memory.data(), memory.data() + 4096, memory.data() + 8192},
                             {width * 4, width * 4, width * 4});
  };
  session->pushVideo(nullptr);
  session->pushVideo(foreign(PixelFormat::BGRA, 0, 0));
  session->pushVideo(foreign(PixelFormat::Planar, 18, 32));
  session->pushVideo(PixelBuffer::create(PixelFormat::Planar, 128, 72));
  manual.runPending();
  EXPECT_TRUE(videoEncoder->keyFrames.empty());
  EXPECT_GE(log.count(LogLevel::Error, "Live: pixelbuffer don't contain iosurface"), 1U);
  EXPECT_EQ(log.count(LogLevel::Error, "do not have the shape of the output 720 x 1280"), 1U);
  // Foreign memory that is copied anyway is welcome.
  session->pushVideo(foreign(PixelFormat::BGRA, 18, 32));
  session->pushVideo(foreign(PixelFormat::BiPlanarVideoRange, 18, 32));
  manual.runPending();
  EXPECT_EQ(videoEncoder->keyFrames.size(), 2U);
}

TEST_F(SessionTest, AMissingSourceIsToldWhileTheOtherRuns) {
  connect(kPushed);
  pushAudio(151);
  manual.runPending();
  EXPECT_EQ(std::count(delegate->states.begin(), delegate->states.end(), 21U), 1);
  connect(kPushed);
  pushPicture(200);
  manual.runPending();
  EXPECT_EQ(std::count(delegate->states.begin(), delegate->states.end(), 20U), 2);
}

TEST_F(SessionTest, AScreenBroadcastWithoutAudioEndsAfter300Frames) {
  LogCapture log;
  connect(ZelLiveReplayAudio | ZelLiveReplayVideo);
  const auto picture = PixelBuffer::create(PixelFormat::BGRA, 72, 128);
  for (int i = 0; i < 299; ++i) {
    session->replayCaptureOutputPixelBuffer(nullptr, picture);
    manual.runPending();
  }
  EXPECT_NE(session->state(), 6U);
  session->replayCaptureOutputPixelBuffer(nullptr, picture);
  manual.runPending();
  EXPECT_EQ(session->state(), 6U);
  EXPECT_EQ(log.count(LogLevel::Error, "Live: replayCapture has't audio stream"), 1U);
  session->replayCaptureOutputPixelBuffer(nullptr, picture);
  manual.runPending();
  EXPECT_EQ(videoEncoder->keyFrames.size(), 300U) << "uploading has stopped";
}

TEST_F(SessionTest, BroadcastErrorsBecomeStates) {
  struct Case {
    std::int64_t code;
    std::uint64_t state;
    bool goesOn;
  };
  for (const auto& c : {Case{-5801, 7, false}, {1201, 8, true}, {1202, 9, true}, {1100, 6, false}, {0, 6, false}}) {
    connect(ZelLiveReplayAudio);
    session->replayCaptureOutputError(nullptr, {"ZelLiveReplayCaptureErrorDomain", c.code, "why"});
    manual.runPending();
    EXPECT_EQ(delegate->states, std::vector<std::uint64_t>{c.state});
    EXPECT_EQ(session->state(), c.state);
    for (int i = 0; i < 4; ++i) {
      session->replayCaptureOutputAudioData(nullptr, std::vector<std::uint8_t>(2048));
    }
    EXPECT_EQ(!session->handedOff.empty(), c.goesOn) << c.code;
  }
}

TEST_F(SessionTest, SilenceTakesTheRhythmOfTheLastPush) {
  LogCapture log;
  connect(ZelLiveInputAudio);
  session->pushAudio(std::vector<std::uint8_t>(960));
  session->turnOffAudio(true);
  session->turnOffAudio(true);
  session->pushAudio(std::vector<std::uint8_t>(96000));
  manual.advance(1s);
  // 480-sample blocks every 10 ms, the pushed second ignored: about 1 s of audio, 46 units.
  EXPECT_NEAR(static_cast<double>(session->handedOff.size()), 46, 1);
  EXPECT_NEAR(static_cast<double>(session->handedOff.back()->timestamp), 1010, 25);
  session->turnOffAudio(false);
  session->turnOffAudio(true);
  session->turnOffAudio(false);
  session->handedOff.clear();
  manual.advance(1s);
  EXPECT_LE(session->handedOff.size(), 1U);
  EXPECT_EQ(log.count("Live: start turn off audio: "), 2U);
  EXPECT_EQ(log.count("Live: end turn off audio: "), 2U);
}

TEST_F(SessionTest, SilenceNeedsNoWholeSampleBeforeIt) {
  connect(ZelLiveInputAudio);
  session->pushAudio(std::vector<std::uint8_t>(1));
  session->turnOffAudio(true);
  manual.advance(1s);
  EXPECT_NEAR(static_cast<double>(session->handedOff.size()), 46, 1);
}

TEST_F(SessionTest, SilenceKeepsTheWorldsPaceHoweverLongEachRunTakes) {
  /// Every chunk takes 5 ms to encode; queues do not stand still meanwhile.
  struct WorkClock : MediaClock {
    explicit WorkClock(std::shared_ptr<MediaClock> base) : idle(std::move(base)) {}
    [[nodiscard]] std::chrono::nanoseconds now() const override { return idle->now() + worked; }
    [[nodiscard]] Date date() const override { return idle->date(); }
    std::shared_ptr<MediaClock> idle;
    std::chrono::nanoseconds worked{0};
  };
  struct WorkingEncoder : InstantAudioEncoder {
    struct Converter : InstantAudioEncoder::Converter {
      explicit Converter(WorkClock& time) : clock(time) {}
      int convert(std::span<const std::uint8_t> pcm, std::uint64_t reference, const OutputHandler& output) override {
        clock.worked += 5ms;
        return InstantAudioEncoder::Converter::convert(pcm, reference, output);
      }
      WorkClock& clock;
    };
    explicit WorkingEncoder(std::shared_ptr<WorkClock> time) : clock(std::move(time)) {}
    std::unique_ptr<AudioConverter> create(const AudioStreamBasicDescription&, const AudioStreamBasicDescription&,
                                           int& status) override {
      status = 0;
      return std::make_unique<Converter>(*clock);
    }
    std::shared_ptr<WorkClock> clock;
  };
  auto platform = std::make_shared<Platform>(*manual.platform());
  const auto clock = std::make_shared<WorkClock>(manual.time);
  platform->clock = clock;
  platform->audioConversion = std::make_shared<WorkingEncoder>(clock);
  session = std::make_shared<ObservedSession>(audio, video, ZelLiveInputAudio, platform);
  session->startLive(info);
  session->socketStatus(*session->publisher, ZelStreamSocketStatusConnected);
  const auto start = clock->now();
  session->turnOffAudio(true);
  manual.advance(60s);
  const auto elapsed = std::chrono::duration<double, std::milli>(clock->now() - start).count();
  EXPECT_GT(elapsed, 70'000.0) << "the encoder's work did not show";
  EXPECT_NEAR(static_cast<double>(session->handedOff.back()->timestamp), elapsed, 50);
}

TEST_F(SessionTest, ASourceTurnedOffBeforeTheConnectionIsStoodInFor) {
  make(ZelLiveInputAudio);
  session->turnOffAudio(true);
  session->startLive(info);
  manual.advance(5s);
  EXPECT_TRUE(session->handedOff.empty());
  session->socketStatus(*session->publisher, ZelStreamSocketStatusConnected);
  pushAudio(10);
  manual.advance(1s);
  EXPECT_NEAR(static_cast<double>(session->handedOff.size()), 46, 1) << "silence, and nothing of what is pushed";
  session->turnOffAudio(false);
  session->handedOff.clear();
  pushAudio(10);
  EXPECT_EQ(session->handedOff.size(), 10U);
}

TEST_F(SessionTest, OffOnOffLeavesOneChainOfFillers) {
  connect(kPushed);
  align();
  for (int i = 0; i < 3; ++i) {
    session->turnOffVideo(true);
    session->turnOffVideo(false);
  }
  session->turnOffVideo(true);
  manual.advance(3500ms);
  EXPECT_EQ(handedOff(ZelFrameKind::Video), 4U);
}

TEST_F(SessionTest, APictureFillerIsTheLastKeyFrameAtTheClockOfTheMoment) {
  connect(kPushed);
  align();
  pushPicture();
  pushAudio(2);
  session->handedOff.clear();
  session->turnOffVideo(true);
  manual.advance(100ms);
  ASSERT_EQ(handedOff(ZelFrameKind::Video), 1U);
  const auto first = session->handedOff.back();
  EXPECT_TRUE(static_cast<const ZelLiveVideoFrame&>(*first).isKeyFrame);
  EXPECT_EQ(first->timestamp, 85U);
  pushAudio(3);
  session->handedOff.clear();
  manual.advance(1s);
  ASSERT_EQ(handedOff(ZelFrameKind::Video), 1U);
  EXPECT_EQ(session->handedOff.back()->timestamp, 149U);
  EXPECT_EQ(first->timestamp, 85U) << "a record that was handed on has changed";
  // Each filler takes a slot of the key-frame rhythm: 3 pictures and 2 fillers so far, 43 more to the next key frame.
  videoEncoder->keyFrames.clear();
  session->turnOffVideo(false);
  pushPicture(48);
  EXPECT_EQ(
      std::find(videoEncoder->keyFrames.begin(), videoEncoder->keyFrames.end(), true) - videoEncoder->keyFrames.begin(),
      48 - 4);
}

TEST_F(SessionTest, InTheBackgroundTheLastKeyFrameKeepsTheStreamAlive) {
  LogCapture log;
  connect(kPushed);
  align();
  manual.notifications->post(notification::DidEnterBackground);
  manual.advance(2500ms);
  pushPicture(5);
  pushAudio();
  EXPECT_EQ(handedOff(ZelFrameKind::Video), 3U);
  EXPECT_EQ(handedOff(ZelFrameKind::Audio), 1U);
  manual.notifications->post(notification::WillEnterForeground);
  manual.notifications->post(notification::WillResignActive);
  manual.notifications->post(notification::DidBecomeActive);
  EXPECT_EQ(log.count(LogLevel::Information, "Live: fill videoFrame 3 in backgroud."), 1U);
  for (const char* text :
       {"Live: enter backgroud", "Live: enter foregroud", "Live: resign active", "Live: become active"}) {
    EXPECT_EQ(log.count(text), 1U) << text;
  }
  session->handedOff.clear();
  videoEncoder->keyFrames.clear();
  manual.advance(3s);
  pushPicture();
  EXPECT_EQ(videoEncoder->keyFrames, std::vector<bool>{true});
  EXPECT_EQ(handedOff(ZelFrameKind::Video), 1U);
}

TEST_F(SessionTest, NothingIsEncodedInTheBackgroundNotEvenTheFirstPicture) {
  connect(kPushed);
  pushAudio(2);
  manual.notifications->post(notification::DidEnterBackground);
  pushPicture(3);
  EXPECT_TRUE(videoEncoder->keyFrames.empty());
  manual.notifications->post(notification::WillEnterForeground);
  pushPicture(2);
  EXPECT_EQ(videoEncoder->keyFrames, (std::vector<bool>{true, false}));
  EXPECT_EQ(handedOff(ZelFrameKind::Video), 2U);
}

TEST_F(SessionTest, ALoneSeiIsNoFiller) {
  connect(kPushed);
  align();
  const auto encoder = ZelHardwareVideoEncoder::create(video, manual.platform());
  auto sei = std::make_shared<ZelLiveVideoFrame>();
  sei->isKeyFrame = true;
  sei->data = Data::copyOf(std::vector<std::uint8_t>{0x06, 0x05, 0x80});
  session->videoEncoderVideoFrame(*encoder, sei);
  session->handedOff.clear();
  // The slice that belongs to it comes too late.
  manual.notifications->post(notification::DidEnterBackground);
  manual.runPending();
  ASSERT_EQ(session->handedOff.size(), 1U);
  EXPECT_EQ(session->handedOff[0]->data.bytes()[0], 0x65);
}

TEST_F(SessionTest, VideoTurnedOffGoesOnBeingFilledAfterTheBackground) {
  connect(kPushed);
  align();
  session->turnOffVideo(true);
  manual.advance(100ms);
  manual.notifications->post(notification::DidEnterBackground);
  manual.advance(1s);
  manual.notifications->post(notification::WillEnterForeground);
  session->handedOff.clear();
  manual.advance(3s);
  EXPECT_GE(handedOff(ZelFrameKind::Video), 3U);
  EXPECT_LE(handedOff(ZelFrameKind::Video), 4U);
}

}  // namespace
}  // namespace zellive::test
