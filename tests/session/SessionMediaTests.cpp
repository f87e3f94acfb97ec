#include <array>
#include <limits>
#include <sstream>

#include "tests/session/SessionFixture.h"
#include "tests/support/ColourScene.h"
#include "tests/support/FakeCameras.h"
#include "tests/support/FakeMicrophones.h"
#include "zellive/capture/ZelLiveVideoCapture.h"
#include "zellive/gpu/GPUImageQueues.h"

namespace zellive::test {
namespace {

// ---- What is pushed

TEST_F(SessionTest, AStreamOpensWithTheWholeOfAKeyFrame) {
  connect(kPushed);
  give({0x65, 0x06});
  pushAudio(2);
  give({0x65, 0x41});
  EXPECT_EQ(take(), "") << "the SEI came too early, and the slice would be spent on the sequence header";
  give({0x06, 0x65, 0x41});
  EXPECT_EQ(take(), "s0 K0 p0 ");
}

TEST_F(SessionTest, NoFrameIsOvertakenByMoreThanTheQueueSorts) {
  // A picture of another shape waits for the renderer, where there is one, before it waits for the encoder.
  const bool draws = manual.graphics->makeContext(GraphicsAPI::OpenGLES3) != nullptr;
  for (const std::size_t height : {128, draws ? 32 : 128}) {
    connect(kPushed);
    align();
    const auto push = [&](int pushes) {
      session->pushVideo(PixelBuffer::create(PixelFormat::Planar, 72, height));
      pushAudio(pushes);
    };
    push(4);
    EXPECT_EQ(session->handedOff, "a42 a64 a85 a106 ") << "what the queue sorts is not held back";
    push(6);
    push(6);
    push(6);
    manual.runPending();  // Only now are the pictures fitted and encoded.
    std::istringstream all(take());
    std::vector<int> stamps;
    for (std::string frame; all >> frame;) {
      stamps.push_back(std::stoi(frame.substr(1)));
      EXPECT_LE(std::ranges::count_if(stamps, [&](int earlier) { return earlier > stamps.back(); }), 5) << frame;
    }
    EXPECT_EQ(stamps.size(), 26U) << "nothing is kept";
    push(100);
    EXPECT_GE(take('a'), 50) << "a stage that hangs does not silence the stream";
  }
}

TEST_F(SessionTest, PicturesOfEveryShapeAndFormatReachTheEncoderInOrder) {
  if (!manual.graphics->makeContext(GraphicsAPI::OpenGLES3)) {
    GTEST_SKIP() << "this machine has no OpenGL ES 3 through EGL; Mesa's software renderer is enough";
  }
  video->setVideoSize({72, 128});
  connect(kPushed);
  align();
  std::string encoded;
  encoder->onPicture = [&](const std::shared_ptr<PixelBuffer>& picture) {
    encoded += std::to_string(picture->width()) + " ";
    // The scene is square and in the middle, black above, in its own colours whatever its format was.
    for (int row = 11; picture->width() == 72 && row < 100; row += 44) {
      for (int byte = 0; byte < 3; ++byte) {
        const double colour = row < 28 ? 0 : sceneAt(PixelFormat::BGRA, {}, byte, 20, row - 28, 72, 72);
        EXPECT_NEAR(picture->plane(0).base[row * picture->plane(0).bytesPerRow + 80 + byte], colour, 5) << encoded;
      }
    }
  };
  using enum PixelFormat;
  using enum ColorMatrix;
  const std::tuple<PixelFormat, ColorMatrix, int, int> pictures[] = {
      {Planar, BT709, 128, 128},          {BiPlanarVideoRange, BT601, 128, 128}, {Planar, BT709, 36, 64},
      {BiPlanarFullRange, BT709, 64, 64}, {BiPlanarFullRange, BT601, 128, 128},  {BGRA, Unspecified, 36, 64},
      {BGRA, Unspecified, 96, 96},        {Planar, Unspecified, 96, 96}};
  for (const auto& [format, matrix, width, height] : pictures) {
    pushAudio();
    session->pushVideo(colourScene(format, width, height, matrix));
    width == 36 ? manual.runPending() : void();  // No more than four wait for the renderer.
  }
  manual.runPending();
  EXPECT_EQ(encoded, "72 72 36 72 72 36 72 72 ");
  EXPECT_EQ(take(), "a42 a64 a85 p64 p85 p106 a106 a128 a149 p128 p149 p170 a170 a192 p192 p213 ");
}

TEST_F(SessionTest, SamplesAreCountedAsOneChannelAtAnyUsableRate) {
  connect(kPushed);
  const auto format = session->inputAudioASBD();
  auto other = format;
  for (const double rate : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN(), 1e-40, 1e30}) {
    other.mSampleRate = rate;
    session->setInputAudioASBD(other);
    pushAudio(4);
    session->turnOffAudio(true);
    manual.runPending();
    session->turnOffAudio(false);
  }
  pushPicture();
  EXPECT_EQ(take(), "");
  other.mSampleRate = 44100;
  other.mChannelsPerFrame = 2;
  session->setInputAudioASBD(other);
  session->pushAudio(Bytes(4096));
  pushAudio();
  // 2048 samples at 44.1 kHz are 46.44 ms; 1024 more make 69.66 ms.
  pushPicture();
  EXPECT_EQ(take(), "K69 ");
  session->setInputAudioASBD(format);
  for (const std::size_t length : {0, 1, 10'000'001}) {
    session->pushAudio(Bytes(length));
  }
  (void)take();
  pushAudio();
  EXPECT_GT(take('a'), 0);
}

TEST_F(SessionTest, PicturesAreThinnedByTheWholeRatioAndRefusedWhereTheyCannotBeTaken) {
  for (const auto& [pushed, configured, taken] :
       {std::array{60U, 30U, 6U}, {30U, 10U, 4U}, {30U, 0U, 12U}, {0U, 30U, 12U}, {59U, 30U, 12U}}) {
    encoder->trace.clear();
    video->setVideoFrameRate(configured);
    connect(kPushed);
    session->setInputVideoFrameRate(pushed);
    pushPicture(12);
    EXPECT_EQ(encoder->trace.size(), taken) << pushed << " to " << configured;
  }
  encoder->trace.clear();
  std::array<std::uint8_t, 64 * 64 * 4> memory{};
  const auto pushForeign = [&](PixelFormat format, std::size_t width, std::size_t height) {
    session->pushVideo(PixelBuffer::wrap(format, width, height, {memory.data(), &memory[4096], &memory[8192]},
                                         {width * 4, width * 4, width * 4}));
    manual.runPending();
  };
  session->pushVideo(nullptr);
  pushForeign(PixelFormat::BGRA, 0, 0);
  pushForeign(PixelFormat::Planar, 18, 32);
  EXPECT_EQ(encoder->trace, "");
  EXPECT_EQ(log.count(LogLevel::Error, "Live: pixelbuffer don't contain iosurface"), 2U);
  pushForeign(PixelFormat::BGRA, 18, 32);  // Foreign memory that is copied anyway is welcome.
  EXPECT_EQ(encoder->trace.size(), 1U);
}

TEST_F(SessionTest, AMissingSourceIsToldWhileTheOtherRuns) {
  connect(kPushed);
  pushPicture(200);
  EXPECT_EQ(heard(), "state 20, state 20, ");
  pushAudio(151);
  EXPECT_EQ(heard(), "state 21, ");
}

// ---- What is captured

TEST_F(SessionTest, AScreenBroadcastEndsWithItsErrorsOrWithoutSound) {
  for (const auto& [code, state, goesOn] :
       {std::tuple{-5801, 7U, false}, {1201, 8U, true}, {1202, 9U, true}, {1100, 6U, false}}) {
    connect(ZelLiveReplayAudio);
    session->replayCaptureOutputError(nullptr, {"ZelLiveReplayCaptureErrorDomain", code, "why"});
    EXPECT_EQ(heard(), "state " + std::to_string(state) + ", ");
    session->replayCaptureOutputAudioData(nullptr, Bytes(8192));
    EXPECT_EQ(take('a') > 0, goesOn) << code;
  }
  connect(ZelLiveReplayAudio | ZelLiveReplayVideo);
  const auto broadcast = [&](int pictures) {
    for (; pictures > 0; --pictures) {
      session->replayCaptureOutputPixelBuffer(nullptr, PixelBuffer::create(PixelFormat::BGRA, 72, 128));
      manual.runPending();
    }
    return heard();
  };
  EXPECT_EQ(broadcast(299), "");
  EXPECT_EQ(broadcast(1), "state 6, ");
  EXPECT_EQ(log.count(LogLevel::Error, "Live: replayCapture has't audio stream"), 1U);
  EXPECT_EQ(broadcast(1), "");
  EXPECT_EQ(encoder->trace.size(), 300U) << "uploading has stopped";
}

TEST_F(SessionTest, CameraAndMicrophoneRunAsTheSessionSays) {
  const auto cameras = std::make_shared<FakeCameras>();
  const auto microphones = std::make_shared<FakeMicrophones>();
  manual.cameras = cameras;
  manual.audioInputs = microphones;
  const auto run = [&](bool running) {
    session->setRunning(running);
    manual.runPending();
    return microphones->take();
  };
  for (const std::int64_t without : {kPushed, std::int64_t{ZelLiveCaptureAudio | ZelLiveReplayVideo}}) {
    make(without);
    EXPECT_EQ(run(true), "") << without;
    EXPECT_FALSE(session->videoCapture() || session->preView());
  }
  for (const std::int64_t type : {ZelLiveCaptureVideo | 0, ZelLiveCaptureAudio | ZelLiveCaptureVideo}) {
    SCOPED_TRACE(type);
    const bool sound = type != ZelLiveCaptureVideo;
    connect(type);
    std::string changes;
    const auto note = [&](const char* key) {
      return session->observe(
          key, [&, key](const UserInfo& change) { changes += key + std::to_string(change.at("new")) + " "; });
    };
    const auto position = note("captureDevicePosition");
    const auto preView = note("preView");
    const auto window = std::make_shared<View>(Rect{0, 0, 36, 64});
    session->setPreView(window);
    session->setCaptureDevicePosition(2);
    session->setCaptureDevicePosition(1);
    EXPECT_EQ(changes, "preView1 captureDevicePosition1 ");
    EXPECT_TRUE(session->preView() == window && session->captureDevicePosition() == 1);
    EXPECT_FALSE(cameras->session->running || microphones->callback) << "before it is asked for";
    EXPECT_EQ(run(true), sound ? "start " : "");
    EXPECT_TRUE(cameras->session->running);
    if (sound) {
      microphones->deliver(Bytes(4096));
    }
    cameras->session->deliver(PixelBuffer::create(PixelFormat::BiPlanarFullRange, 1280, 720));
    runSynchronouslyOnVideoProcessingQueue([] {});
    manual.runPending();
    EXPECT_EQ(take(), sound ? "K42 " : "K0 ");
    EXPECT_EQ(run(false), sound ? "stop " : "");
    EXPECT_FALSE(cameras->session->running);
    session->stopLive();
    EXPECT_EQ(microphones->take(), sound ? "stop gone " : "");
    EXPECT_TRUE(window->subviews().empty() && !session->videoCapture());
    EXPECT_EQ(run(true), "");
    EXPECT_FALSE(cameras->session->running);
  }
}

// ---- What stands in for a source that is off

TEST_F(SessionTest, SilenceTakesTheRhythmOfTheLastPush) {
  // Blocks of 100 ms, or the 21 ms of the beginning where no whole sample came, and so many units of the first one.
  for (const auto& [length, units] : {std::pair{9600, 5}, {1, 0}}) {
    SCOPED_TRACE(length);
    connect(ZelLiveInputAudio);
    session->pushAudio(Bytes(static_cast<std::size_t>(length)));
    (void)take();
    session->turnOffAudio(true);
    session->turnOffAudio(true);
    session->pushAudio(Bytes(96000));  // Ignored.
    manual.runPending();
    EXPECT_EQ(take('a'), units);
    manual.advance(1s);
    EXPECT_NEAR(static_cast<double>(take('a')), 46, 1);
    for (const bool off : {false, true, false, true}) {  // One chain of fillers is left, which begins anew.
      session->turnOffAudio(off);
    }
    manual.advance(1s);
    EXPECT_NEAR(static_cast<double>(take('a')), 46 + units, 1);
    session->turnOffAudio(false);
    manual.advance(1s);
    EXPECT_EQ(take(), "");
  }
  EXPECT_EQ(log.count("Live: start turn off audio: "), 6U);
  EXPECT_EQ(log.count("Live: end turn off audio: "), 6U);

  // From before the connection on, and at the world's pace however late and long each run is.
  struct SlowClock : MediaClock {
    explicit SlowClock(std::shared_ptr<MediaClock> base) : idle(std::move(base)) {}
    [[nodiscard]] std::chrono::nanoseconds now() const override { return idle->now() + 2ms * ++looks; }
    [[nodiscard]] Date date() const override { return idle->date(); }
    const std::shared_ptr<MediaClock> idle;
    mutable int looks = 0;
  };
  const auto clock = std::make_shared<SlowClock>(manual.time);
  auto platform = std::make_shared<Platform>(*manual.platform());
  platform->clock = clock;
  make(ZelLiveInputAudio, platform);
  session->turnOffAudio(true);
  session->startLive(info);
  manual.advance(5s);
  EXPECT_EQ(take(), "");
  const auto start = clock->now();
  report(ZelStreamSocketStatusConnected);
  manual.advance(60s);
  const auto elapsed = std::chrono::duration<double, std::milli>(clock->now() - start).count();
  EXPECT_GT(elapsed, 70'000.0) << "no time passed at the looks";
  const auto all = take();
  EXPECT_NEAR(std::stod(all.substr(all.rfind('a') + 1)), elapsed, 50);
}

TEST_F(SessionTest, APictureFillerIsTheLastKeyFrameAtTheClockOfTheMoment) {
  connect(kPushed);
  align();
  pushPicture();
  give({0x06});  // A lone SEI, whose slice comes too late, is no filler.
  pushAudio(2);
  (void)take();
  for (const bool off : {true, false, true, false, true}) {  // One chain of fillers is left.
    session->turnOffVideo(off);
  }
  manual.advance(100ms);
  EXPECT_EQ(take(), "K85 ");
  pushAudio(3);
  (void)take();
  manual.advance(2s);
  EXPECT_EQ(take(), "K149 K149 ");
  session->turnOffVideo(false);
  manual.advance(3s);
  EXPECT_EQ(take(), "");
  // Each filler takes a slot of the key-frame rhythm: 2 pictures and 3 fillers so far, 43 more to the next key frame.
  encoder->trace.clear();
  pushPicture(48);
  EXPECT_EQ(encoder->trace.find('K'), 43U);
}

TEST_F(SessionTest, InTheBackgroundTheLastKeyFrameKeepsTheStreamAlive) {
  make(kPushed);
  session->startLive(info);
  report(ZelStreamSocketStatusConnected);
  post(notification::DidEnterBackground);
  pushAudio(2);
  pushPicture(3);
  EXPECT_EQ(encoder->trace, "") << "nothing is encoded, not even by an encoder that is made just now";
  post(notification::WillEnterForeground);
  pushPicture(2);
  EXPECT_EQ(take(), "K42 p42 ");
  post(notification::DidEnterBackground);
  post(notification::DidEnterBackground);
  manual.advance(2500ms);
  pushPicture(5);
  pushAudio();
  give({0x41});  // What the encoder still had in hand.
  EXPECT_EQ(take(), "K42 K42 K42 a42 ");
  post(notification::WillEnterForeground);
  post(notification::WillResignActive);
  post(notification::DidBecomeActive);
  for (const char* message : {"Live: enter backgroud", "Live: fill videoFrame 3 in backgroud.", "Live: enter foregroud",
                              "Live: resign active", "Live: become active"}) {
    EXPECT_GE(log.count(LogLevel::Information, message), 1U) << message;
  }
  manual.advance(3s);
  pushPicture();
  EXPECT_EQ(take(), "K64 ");
  // Off, in the background too and after it: one filler a second, whatever its reason.
  session->turnOffVideo(true);
  manual.advance(100ms);
  for (const char* change : {notification::DidEnterBackground, notification::WillEnterForeground}) {
    (void)take();
    post(change);
    manual.advance(2500ms);
    EXPECT_EQ(take(), "K64 K64 K64 ");
  }
}

}  // namespace
}  // namespace zellive::test
