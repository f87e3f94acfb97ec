#include "zellive/platform/linux/PipeWireMicrophones.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <mutex>
#include <string>

#include "tests/support/ManualPlatform.h"
#include "tests/support/PipeWireDaemon.h"
#include "zellive/capture/ZelLiveAudioCapture.h"
#include "zellive/platform/PcmFormat.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

/// For what a machine under load does in a second or two otherwise.
constexpr auto kLimit = 40s;

/// Sound as it arrives.
class Ear : public ZelLiveAudioCaptureDelegate {
 public:
  Ear(double rate, std::size_t channels) : rate_(rate), channels_(channels) {}

  void audioCaptureOutputAudioData(ZelLiveAudioCapture*, std::span<const std::uint8_t> data) override {
    const std::lock_guard lock(mutex_);
    const auto* const samples = reinterpret_cast<const std::int16_t*>(data.data());
    samples_.insert(samples_.end(), samples, samples + data.size() / 2);
  }
  /// Whether a quarter of a second of a tone comes, the same on all channels. The tone's pitch tells that rate and
  /// channels are what they should be. 0 Hz is silence.
  [[nodiscard]] bool hears(double frequency, std::chrono::seconds limit = kLimit) {
    clear();
    return waitUntil([&] { return std::abs(pitch() - frequency) <= frequency * 0.01; }, limit);
  }
  void clear() {
    const std::lock_guard lock(mutex_);
    samples_.clear();
  }

 private:
  /// Of the last quarter of a second; −1 while that is not full, or channels differ.
  double pitch() {
    const std::lock_guard lock(mutex_);
    const auto frames = static_cast<std::size_t>(rate_ / 4);
    if (samples_.size() < frames * channels_) {
      return -1;
    }
    const auto sample = [&, first = samples_.size() - frames * channels_](std::size_t frame, std::size_t channel) {
      return samples_[first + frame * channels_ + channel];
    };
    std::size_t first = 0;
    std::size_t last = 0;
    int crossings = 0;
    for (std::size_t i = 1; i < frames; ++i) {
      if (sample(i, 0) != sample(i, channels_ - 1)) {
        return -1;
      }
      if (sample(i - 1, 0) < 0 && sample(i, 0) >= 0) {
        (crossings++ == 0 ? first : last) = i;
      }
    }
    return crossings < 2 ? 0 : (crossings - 1) * rate_ / static_cast<double>(last - first);
  }

  const double rate_;
  const std::size_t channels_;
  std::mutex mutex_;
  std::vector<std::int16_t> samples_;
};

/// A real daemon, with a microphone of 440 Hz that it prefers, and what is told of it.
class PipeWireMicrophonesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!PipeWireDaemon::available()) {
      GTEST_SKIP() << "PipeWire, WirePlumber and GStreamer are not installed";
    }
    daemon = std::make_unique<PipeWireDaemon>();
    const auto queue = defaultPlatform()->queues->makeSerialQueue("test");
    service = std::make_shared<PipeWireMicrophones>(
        PipeWireSources::create(std::make_shared<PipeWireConnection>(queue), queue, notifications));
    plugInRoom();
  }
  /// The machine's own choice from now on.
  void plugInRoom() {
    room = plugIn("room-mic", 440, "priority.session = 3000");
    ASSERT_TRUE(waitUntil(
        [] {
          return runProgram({"pw-metadata", "0"}).output.find("{\"name\":\"room-mic\"}") != std::string::npos;
        },
        kLimit))
        << daemon->log() << room->errors();
  }

  /// A microphone of its own process, with minutes of a tone.
  std::unique_ptr<Process> plugIn(const std::string& name, int frequency, const std::string& more = {}) {
    const auto file = directory.path() + "/" + std::to_string(frequency) + ".wav";
    const auto tone = "sine=duration=300:sample_rate=8000:frequency=" + std::to_string(frequency);
    EXPECT_EQ(runProgram({"ffmpeg", "-y", "-f", "lavfi", "-i", tone, file}).status, 0);
    return std::make_unique<Process>(std::vector<std::string>{
        "pw-cat", "-p", "-P",
        "{ media.class = Audio/Source node.name = " + name + " node.description = \"the " + name + "\" " + more + " }",
        file});
  }
  bool lists(const std::string& name) {
    return std::ranges::count(service->devices(), name, &AudioInputDescription::uniqueID) == 1;
  }
  std::unique_ptr<AudioInputUnit> start(const std::string& name, const std::shared_ptr<Ear>& ear, double rate = 48000,
                                        std::uint32_t channels = 1) {
    EXPECT_TRUE(service->setPreferredInput(name)) << name;
    int status = 0;
    auto unit = service->makeUnit(
        sixteenBitPcm(rate, channels),
        [ear](int, std::span<std::uint8_t> block) { ear->audioCaptureOutputAudioData(nullptr, block); }, status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(unit->start(), 0);
    return unit;
  }
  /// The number of the daemon's object of that kind and property.
  static std::string idOf(const std::string& kind, const std::string& property) {
    const auto list = runProgram({"pw-cli", "ls", kind}).output;
    const auto at = list.find(property);
    const auto id = at == std::string::npos ? at : list.rfind("\tid ", at);
    return id == std::string::npos ? "" : list.substr(id + 4, list.find(',', id) - id - 4);
  }
  bool told(const std::string& line) {
    return waitUntil([&] { return log.count(line) > 0; }, kLimit);
  }
  /// Whether the notification has been posted since the last such question.
  bool posted(const std::string& what) {
    return waitUntil(
        [&] {
          const std::lock_guard lock(mutex);
          const auto at = news.find(what);
          if (at != std::string::npos) {
            news.erase(at, what.size());
          }
          return at != std::string::npos;
        },
        kLimit);
  }
  NotificationCenter::Observation observe(const char* name, const char* key, std::string label) {
    return notifications->addObserver(name, [this, key, label](const UserInfo& userInfo) {
      const std::lock_guard lock(mutex);
      news += label + std::to_string(userInfo.at(key)) + " ";
    });
  }

  TemporaryDirectory directory;
  LogCapture log;
  std::mutex mutex;
  std::string news;
  std::shared_ptr<NotificationCenter> notifications = std::make_shared<NotificationCenter>();
  NotificationCenter::Observation routes =
      observe(notification::AudioRouteChange, kAudioRouteChangeReasonKey, "route ");
  NotificationCenter::Observation interruptions =
      observe(notification::AudioInterruption, kAudioInterruptionTypeKey, "interruption ");
  std::unique_ptr<PipeWireDaemon> daemon;
  std::unique_ptr<Process> room;
  std::shared_ptr<PipeWireMicrophones> service;
};

TEST_F(PipeWireMicrophonesTest, DeliversInTheRateAndChannelsThatAreAsked) {
  const struct {
    double rate;
    std::uint32_t channels;
  } cases[] = {{48000, 1}, {44100, 2}, {16000, 2}, {8000, 1}};
  for (const auto& test : cases) {
    const auto ear = std::make_shared<Ear>(test.rate, test.channels);
    const auto unit = start("", ear, test.rate, test.channels);
    EXPECT_TRUE(ear->hears(440)) << test.rate << daemon->log();
    unit->stop();
    ear->clear();
    EXPECT_FALSE(ear->hears(440, 1s)) << test.rate;
  }
  const auto devices = service->devices();
  ASSERT_EQ(devices.size(), 2U);
  EXPECT_EQ(devices[0].localizedName, "the room-mic");
  EXPECT_EQ(devices[0].channels, 1U);
  EXPECT_EQ(devices[1].uniqueID, "zellive-mic");
  EXPECT_EQ(devices[1].channels, 2U);
  EXPECT_EQ(devices[1].sampleRate, 48000);
  EXPECT_FALSE(service->setPreferredInput("another"));
}

TEST_F(PipeWireMicrophonesTest, ACaptureIsMutedPausedAndForbidden) {
  auto platform = std::make_shared<Platform>(*defaultPlatform());
  platform->audioInputs = service;
  platform->notifications = notifications;
  const auto capture = ZelLiveAudioCapture::create(ZelLiveAudioConfiguration::defaultConfiguration(), platform);
  const auto ear = std::make_shared<Ear>(48000, 1);
  capture->setDelegate(ear);
  capture->setRunning(true);
  EXPECT_TRUE(ear->hears(440));
  capture->setMuted(true);
  EXPECT_TRUE(ear->hears(0));
  capture->setMuted(false);
  EXPECT_TRUE(ear->hears(440));

  // Somebody pauses the stream, and resumes it: the owner has to start it.
  const auto node = idOf("Node", "node.name = \"zellive\"");
  (void)runProgram({"pw-cli", "c", node, "Pause", "{}"});
  EXPECT_TRUE(posted("interruption 1 "));
  EXPECT_TRUE(told("Live: Interruption, Microphone stopRunning"));
  (void)runProgram({"pw-cli", "c", node, "Start", "{}"});
  EXPECT_TRUE(posted("interruption 0 "));
  EXPECT_FALSE(ear->hears(440, 1s));
  capture->setRunning(false);
  capture->setRunning(true);
  EXPECT_TRUE(ear->hears(440));

  // Permission is taken away: a new connection has its own.
  capture->setRunning(false);
  const auto client = idOf("Client", "application.name = \"zellive_platform_tests\"");
  (void)runProgram({"pw-cli", "sp", client, "0", "256"});  // To read only.
  capture->setRunning(true);
  EXPECT_TRUE(told("PipeWire may not be used: permission is refused"));
  EXPECT_TRUE(ear->hears(440));
}

TEST_F(PipeWireMicrophonesTest, AMicrophoneThatGoesIsTakenUpAgainAndTheDaemonToo) {
  const auto chosen = std::make_shared<Ear>(48000, 1);
  const auto desk = std::make_shared<Ear>(48000, 1);
  const auto chosenUnit = start("", chosen);
  ASSERT_TRUE(chosen->hears(440));
  auto microphone = plugIn("desk-mic", 1000);
  EXPECT_TRUE(posted("route 1 ")) << microphone->errors();
  ASSERT_TRUE(waitUntil([&] { return lists("desk-mic"); }, kLimit));
  const auto deskUnit = start("the desk-mic", desk);
  EXPECT_TRUE(desk->hears(1000)) << microphone->errors();

  // The machine's own choice moves, and the unit without a name with it.
  const auto choose = [](const std::string& name) {
    (void)runProgram(
        {"pw-metadata", "0", "default.configured.audio.source", "{ \"name\": \"" + name + "\" }", "Spa:String:JSON"});
  };
  choose("desk-mic");
  EXPECT_TRUE(posted("route 4 "));

  microphone.reset();
  EXPECT_TRUE(posted("route 2 "));
  EXPECT_TRUE(told("the microphone \"the desk-mic\" is not there"));
  EXPECT_TRUE(chosen->hears(440)) << "the machine has another choice";
  EXPECT_FALSE(desk->hears(440, 1s)) << "another microphone than the one that was named";
  microphone = plugIn("desk-mic", 500);
  EXPECT_TRUE(desk->hears(500)) << microphone->errors();
  EXPECT_TRUE(told("the microphone \"the desk-mic\" delivers sound again"));

  // One that hangs is told.
  microphone->signal(SIGSTOP);
  EXPECT_TRUE(told("delivers nothing"));
  microphone->signal(SIGCONT);
  EXPECT_TRUE(desk->hears(500));

  daemon->kill();
  EXPECT_TRUE(told("Live: PipeWire has ended"));
  EXPECT_TRUE(posted("route 7 "));
  microphone.reset();
  daemon->start();
  plugInRoom();
  EXPECT_TRUE(chosen->hears(440)) << daemon->log();
  microphone = plugIn("desk-mic", 750);
  EXPECT_TRUE(desk->hears(750)) << microphone->errors();
  const std::lock_guard lock(mutex);
  EXPECT_EQ(news.find("interruption"), std::string::npos) << news;
}

}  // namespace
}  // namespace zellive::test
