#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Event.h"
#include "tests/support/FakeMicrophones.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/capture/ZelLiveAudioCapture.h"

namespace zellive::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct Listener : ZelLiveAudioCaptureDelegate {
  void audioCaptureOutputAudioData(ZelLiveAudioCapture*, std::span<const std::uint8_t> data) override {
    blocks.emplace_back(data.begin(), data.end());
    during();
  }
  std::vector<Bytes> blocks;
  std::function<void()> during = [] {};
};

class AudioCaptureTest : public ::testing::Test {
 protected:
  AudioCaptureTest() { manual.audioInputs = microphones; }

  void make() {
    capture = ZelLiveAudioCapture::create(configuration, manual.platform());
    capture->setDelegate(listener);
  }
  /// What the microphone is asked when `action` is done and the queue has run.
  std::string asked(const std::function<void()>& action) {
    action();
    manual.runPending();
    return microphones->take();
  }
  void post(const char* name, const UserInfo& userInfo) const { manual.notifications->post(name, userInfo); }

  ManualPlatform manual;
  LogCapture log;
  std::shared_ptr<FakeMicrophones> microphones = std::make_shared<FakeMicrophones>();
  std::shared_ptr<ZelLiveAudioConfiguration> configuration = ZelLiveAudioConfiguration::defaultConfiguration();
  std::shared_ptr<Listener> listener = std::make_shared<Listener>();
  std::shared_ptr<ZelLiveAudioCapture> capture;
};

TEST_F(AudioCaptureTest, AsksForPackedSixteenBitSamplesOfTheConfiguration) {
  for (const std::uint64_t quality : {ZelLiveAudioQualityDefault, ZelLiveAudioQualityMedium}) {
    configuration = ZelLiveAudioConfiguration::defaultConfigurationForQuality(quality);
    make();
    const auto channels = static_cast<std::uint32_t>(configuration->numberOfChannels());
    const auto& format = microphones->format;
    EXPECT_EQ(format.mSampleRate, static_cast<double>(configuration->audioSampleRate()));
    EXPECT_EQ(format.mFormatID, kAudioFormatLinearPCM);
    EXPECT_EQ(format.mFormatFlags, 0x0CU);
    EXPECT_EQ(format.mFramesPerPacket, 1U);
    EXPECT_EQ(format.mBitsPerChannel, 16U);
    EXPECT_EQ(format.mChannelsPerFrame, channels);
    EXPECT_EQ(format.mBytesPerFrame, 2 * channels);
    EXPECT_EQ(format.mBytesPerPacket, 2 * channels);
  }
  EXPECT_EQ(ZelLiveAudioCapture::create(nullptr, manual.platform()), nullptr);
}

TEST_F(AudioCaptureTest, StartsAndStopsOnItsQueueAndOnlyOnAChange) {
  make();
  EXPECT_EQ(manual.time->liveQueues().back(), "com.morrowfen.audioCapture.queue");
  EXPECT_EQ(microphones->take(), "");
  capture->setRunning(true);
  EXPECT_TRUE(capture->running());
  EXPECT_FALSE(capture->isRunning());  // The queue has yet to run.
  EXPECT_EQ(microphones->take(), "");
  const struct {
    bool running;
    const char* asked;
  } steps[] = {{true, "start "}, {true, ""}, {false, "stop "}, {false, ""}, {true, "start "}};
  for (const auto& step : steps) {
    EXPECT_EQ(asked([&] { capture->setRunning(step.running); }), step.asked);
    EXPECT_EQ(capture->isRunning(), step.running);
  }
  EXPECT_EQ(log.count(LogLevel::Information, "Live: MicrophoneSource startRunning"), 2U);
  EXPECT_EQ(log.count(LogLevel::Information, "Live: MicrophoneSource stopRunning"), 1U);
  capture->setRunning(false);
  EXPECT_EQ(asked([&] { capture.reset(); }), "stop gone ");  // At once; the job finds nobody.
}

TEST_F(AudioCaptureTest, DeliversWhatTheMicrophoneGivesAndZeroesWhileMuted) {
  make();
  const Bytes sound{1, 2, 3, 4, 5, 6};
  const struct {
    bool muted;
    int status;
    Bytes left;
    std::vector<Bytes> heard;
  } cases[] = {
      {false, 0, sound, {sound}},
      {true, 0, Bytes(6), {Bytes(6)}},
      {true, -1, Bytes(6), {}},  // Zeroed, though nobody gets it.
      {false, -1, sound, {}},
  };
  for (const auto& test : cases) {
    listener->blocks.clear();
    capture->setMuted(test.muted);
    EXPECT_EQ(microphones->deliver(sound, test.status), test.left) << "case " << &test - cases;
    EXPECT_EQ(listener->blocks, test.heard) << "case " << &test - cases;
  }
  capture->setDelegate(std::make_shared<ZelLiveAudioCaptureDelegate>());  // Gone at once.
  microphones->deliver(sound);
  const auto silent = std::make_shared<ZelLiveAudioCaptureDelegate>();  // Has nothing to say to it.
  capture->setDelegate(silent);
  microphones->deliver(sound);
  EXPECT_EQ(listener->blocks.size(), 0U);
}

TEST_F(AudioCaptureTest, TellsWhyTheRouteHasChangedAndRunsOn) {
  make();
  (void)asked([&] { capture->setRunning(true); });
  const char* const texts[] = {
      "The reason for the change is unknown.",
      "A preferred new audio output path is now available.",
      "The previous audio output path is no longer available.",
      "The category of the session object changed.",
      "The output route was overridden by the app.",
      "The reason for the change is unknown.",
      "The route changed when the device woke up from sleep.",
      "The route changed because no suitable route is now available for the specified category.",
      "The reason for the change is unknown.",
  };
  for (std::int64_t reason = 0; reason < 9; ++reason) {
    const auto text = std::string("Live: handleRouteChange reason is ") + texts[reason];
    const auto before = log.count(LogLevel::Warning, text);
    EXPECT_EQ(asked([&] { post(notification::AudioRouteChange, {{kAudioRouteChangeReasonKey, reason}}); }), "");
    EXPECT_EQ(log.count(LogLevel::Warning, text), before + 1) << reason;
  }
}

TEST_F(AudioCaptureTest, AnInterruptionStopsItUntilItsOwnerHasStoppedAndStartedIt) {
  make();
  const auto begin = [&] { post(notification::AudioInterruption, {{kAudioInterruptionTypeKey, 1}}); };
  const auto end = [&] { post(notification::AudioInterruption, {{kAudioInterruptionTypeKey, 0}}); };
  EXPECT_EQ(asked(begin), "");  // It does not run.
  const auto run = [&](bool running) { return [this, running] { capture->setRunning(running); }; };
  EXPECT_EQ(asked(run(true)), "start ");
  EXPECT_EQ(asked(begin), "stop ");
  EXPECT_TRUE(capture->running() && capture->isRunning());
  EXPECT_EQ(asked(end), "");
  EXPECT_EQ(asked(run(true)), "");
  EXPECT_EQ(asked(run(false)), "stop ");
  EXPECT_EQ(asked(run(true)), "start ");

  EXPECT_EQ(log.count(LogLevel::Information, "Live: Interruption, Microphone stopRunning"), 1U);
  const std::string told = std::string("Live: handleInterruption: ") + notification::AudioInterruption + " reason ";
  EXPECT_EQ(log.count(LogLevel::Error, told), 3U);
  EXPECT_EQ(log.count(LogLevel::Error, told + "AVAudioSessionInterruptionTypeEnded"), 1U);
  EXPECT_EQ(asked([&] { capture->handleInterruption("another", {{kAudioInterruptionTypeKey, 1}}); }), "");
  EXPECT_EQ(log.count(LogLevel::Error, "Live: handleInterruption: another reason "), 1U);
}

TEST_F(AudioCaptureTest, GoesOnWithoutAMicrophoneAndSaysSo) {
  struct Hooked : ZelLiveAudioCapture {
    Hooked(Configuration audio, std::shared_ptr<const Platform> platform)
        : ZelLiveAudioCapture(std::move(audio), std::move(platform)) {}
    using ZelLiveAudioCapture::setUp;
    void handleAudioComponentCreationFailure() override { ++failures; }
    int failures = 0;
  };
  microphones->makeStatus = -7;
  const auto hooked = std::make_shared<Hooked>(configuration, manual.platform());
  hooked->setUp();
  EXPECT_EQ(hooked->failures, 1);
  EXPECT_EQ(log.count(LogLevel::Error, "there is no microphone to take sound from (-7)"), 1U);
  hooked->setRunning(true);
  manual.runPending();
  EXPECT_TRUE(hooked->isRunning());
  hooked->handleInterruption(notification::AudioInterruption, {{kAudioInterruptionTypeKey, 1}});
  hooked->setRunning(false);
  manual.runPending();

  microphones->makeStatus = 0;
  microphones->startStatus = -13;
  make();
  EXPECT_EQ(asked([&] { capture->setRunning(true); }), "start ");
  EXPECT_EQ(log.count(LogLevel::Error, "the microphone does not start (-13)"), 1U);
}

TEST_F(AudioCaptureTest, ItsDelegateMayLetGoOfItInsideTheCall) {
  make();
  listener->during = [&] { capture.reset(); };
  microphones->deliver({1, 2});
  EXPECT_EQ(microphones->take(), "stop gone ");
  microphones->deliver({3, 4});  // The microphone's last block, under way meanwhile.
  EXPECT_EQ(listener->blocks.size(), 1U);
}

TEST_F(AudioCaptureTest, MayBeUsedAndDestroyedWhileBlocksArrive) {
  auto platform = std::make_shared<Platform>(*defaultPlatform());
  platform->audioInputs = microphones;
  for (int round = 0; round < 20; ++round) {
    capture = ZelLiveAudioCapture::create(configuration, platform);
    capture->setDelegate(listener);
    listener->blocks.clear();
    Event heard;
    listener->during = [&] { heard.set(); };
    std::jthread microphone([this](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        microphones->deliver({1, 2});
      }
    });
    ASSERT_TRUE(heard.wait());
    for (int i = 0; i < 50; ++i) {
      capture->setDelegate(std::make_shared<ZelLiveAudioCaptureDelegate>());
      capture->setMuted(i % 2 == 0);
      capture->setDelegate(listener);
    }
    capture.reset();
  }
}

}  // namespace
}  // namespace zellive::test
