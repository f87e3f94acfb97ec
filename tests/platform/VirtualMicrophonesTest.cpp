#include "zellive/platform/VirtualMicrophones.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <numeric>
#include <string>

#include "tests/support/FakeMicrophones.h"
#include "zellive/platform/ManualTime.h"
#include "zellive/platform/PcmFormat.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

/// Writes down where each block is in time; its samples count on.
struct Counting : VirtualMicrophoneSound {
  explicit Counting(std::vector<std::int64_t>& list) : positions(list) {}
  void render(std::int64_t position, std::span<std::int16_t> samples) override {
    positions.push_back(position);
    std::ranges::fill(samples, std::int16_t{7});
  }
  std::vector<std::int64_t>& positions;
};

struct JumpingClock : MediaClock {
  explicit JumpingClock(std::shared_ptr<MediaClock> clock) : base(std::move(clock)) {}
  [[nodiscard]] std::chrono::nanoseconds now() const override { return base->now() + ahead; }
  [[nodiscard]] Date date() const override { return base->date(); }
  std::shared_ptr<MediaClock> base;
  std::chrono::nanoseconds ahead{0};
};

class VirtualMicrophonesTest : public ::testing::Test {
 protected:
  VirtualMicrophonesTest() {
    auto counting = toneMicrophone();
    counting.uniqueID = "own";
    counting.localizedName = "my own";
    counting.makeSound = [this](std::uint32_t, std::uint32_t) { return std::make_unique<Counting>(positions); };
    EXPECT_TRUE(service.addVirtualMicrophone(counting));
    EXPECT_TRUE(service.addVirtualMicrophone(toneMicrophone()));
    EXPECT_TRUE(service.addVirtualMicrophone(speechMicrophone()));
  }
  std::unique_ptr<AudioInputUnit> unit(const char* name, double rate = 48000, std::uint32_t channels = 1) {
    EXPECT_TRUE(service.setPreferredInput(name)) << name;
    heard.clear();
    int status = 1;
    auto made = service.makeUnit(
        sixteenBitPcm(rate, channels),
        [this](int, std::span<std::uint8_t> block) {
          const auto* const samples = reinterpret_cast<const std::int16_t*>(block.data());
          heard.insert(heard.end(), samples, samples + block.size() / 2);
          during();
        },
        status);
    EXPECT_EQ(status, 0);
    return made;
  }
  /// Root of the mean square.
  static double level(std::span<const std::int16_t> samples) {
    const double sum = std::transform_reduce(samples.begin(), samples.end(), 0.0, std::plus<>(),
                                             [](double sample) { return sample * sample; });
    return std::sqrt(sum / static_cast<double>(std::max<std::size_t>(1, samples.size())));
  }

  std::shared_ptr<ManualTime> time = std::make_shared<ManualTime>();
  std::shared_ptr<FakeMicrophones> real = std::make_shared<FakeMicrophones>();
  std::shared_ptr<JumpingClock> clock = std::make_shared<JumpingClock>(time);
  VirtualMicrophones service{real, time, clock};
  std::vector<std::int64_t> positions;
  std::vector<std::int16_t> heard;
  std::function<void()> during = [] {};
};

TEST_F(VirtualMicrophonesTest, AreListedBehindTheRealOnesAndTakenByName) {
  std::string names;
  for (const auto& device : service.devices()) {
    names += device.uniqueID + (device.isVirtual ? "* " : " ");
  }
  EXPECT_EQ(names, "fake own* zellive.tone* zellive.speech* ");
  EXPECT_FALSE(service.addVirtualMicrophone(toneMicrophone()));  // Twice.
  EXPECT_FALSE(service.addVirtualMicrophone({}));

  const struct {
    const char* name;
    bool isVirtual;
  } cases[] = {{"own", true}, {"fake", false}, {"speech with noise", true}, {"", false}};
  for (const auto& test : cases) {
    real->callback = nullptr;
    (void)unit(test.name);
    EXPECT_EQ(real->callback == nullptr, test.isVirtual) << test.name;
  }
  EXPECT_TRUE(service.setPreferredInput("own"));
  for (const auto& format : {sixteenBitPcm(0, 1), sixteenBitPcm(48000, 0), AudioStreamBasicDescription{}}) {
    int status = 0;
    EXPECT_EQ(service.makeUnit(
                  format, [](int, std::span<std::uint8_t>) {}, status),
              nullptr);
    EXPECT_NE(status, 0);
  }
}

TEST_F(VirtualMicrophonesTest, KeepTheMediaClocksPaceHoweverLateTheirQueueRuns) {
  time->advance(123456789ns);
  const auto own = unit("own", 44100, 2);
  time->advance(1s);
  EXPECT_EQ(heard.size(), 0U);  // Nobody has started it.
  own->start();
  time->runPending();
  const auto before = heard.size();
  for (int i = 0; i < 600; ++i) {
    time->advance(997ms + std::chrono::microseconds(i));
  }
  const std::int64_t frames = static_cast<std::int64_t>(heard.size() - before) / 2;
  const double seconds = 600 * 0.997 + 599.0 * 600 / 2 * 1e-6;
  EXPECT_NEAR(static_cast<double>(frames), seconds * 44100, 442);
  for (std::size_t i = 1; i < positions.size(); ++i) {
    ASSERT_EQ(positions[i] - positions[i - 1], 441);
  }
  own->stop();
  const auto end = heard.size();
  time->advance(1min);
  EXPECT_EQ(heard.size(), end);
}

TEST_F(VirtualMicrophonesTest, CatchUpWithWhatIsLateButNotAfterTheMachineStoodStill) {
  const struct {
    std::chrono::milliseconds stop;
    std::size_t blocks;
  } cases[] = {{300ms, 30}, {990ms, 99}, {5s, 1}};
  for (const auto& test : cases) {
    const auto own = unit("own");
    own->start();
    time->advance(50ms);
    const auto last = positions.back();
    const auto blocks = positions.size();
    clock->ahead += test.stop - 10ms;
    time->advance(10ms);
    EXPECT_EQ(positions.size() - blocks, test.blocks) << test.stop.count();
    EXPECT_EQ(positions.back() - last, test.stop.count() * 48) << test.stop.count();
  }
}

TEST_F(VirtualMicrophonesTest, StopInsideTheirOwnBlock) {
  auto own = unit("own");
  own->start();
  during = [&] { own->stop(); };
  time->advance(1s);
  EXPECT_EQ(positions.size(), 1U);
  own->start();
  during = [&] { own.reset(); };
  time->advance(1s);
  EXPECT_EQ(positions.size(), 2U);
}

TEST_F(VirtualMicrophonesTest, TheToneBeepsOnTheBeatOfTheMediaClock) {
  for (const double rate : {8000.0, 44100.0, 48000.0}) {
    time->advance(777ms);
    const auto tone = unit("tone", rate, 2);
    const auto started = clock->now();
    tone->start();
    time->runPending();
    time->advance(5s);
    const auto first = static_cast<std::int64_t>(std::chrono::duration<double>(started).count() * rate);
    const auto second = static_cast<std::int64_t>(rate);
    const auto beep = second / 10;
    for (std::int64_t beat = first / second + 1; beat < first / second + 5; ++beat) {
      const auto at = [&](std::int64_t from, std::int64_t frames) {
        return level(std::span(heard).subspan(static_cast<std::size_t>(2 * (beat * second + from - first)),
                                              static_cast<std::size_t>(2 * frames)));
      };
      EXPECT_NEAR(at(0, beep), 0.5 * 32767 / std::numbers::sqrt2, 60) << rate;
      EXPECT_EQ(at(beep + 2, second - beep - 4), 0) << rate;
    }
  }
}

TEST_F(VirtualMicrophonesTest, TheSpeakerSpeaksAndPausesInNoise) {
  const auto speech = unit("zellive.speech");
  speech->start();
  time->advance(6s);
  std::vector<double> levels;  // Of 50 ms each.
  for (std::size_t i = 0; i + 1 < 6 * 20; ++i) {
    levels.push_back(level(std::span(heard).subspan(i * 2400, 2400)));
  }
  std::ranges::sort(levels);
  EXPECT_GT(levels.front(), 150) << "the fan";
  EXPECT_LT(levels[levels.size() / 5], 600) << "the fan alone, in pauses";
  EXPECT_GT(levels[levels.size() * 3 / 4], 1000) << "the voice";
  EXPECT_LT(std::ranges::max(heard), 32767) << "clipped";
}

}  // namespace
}  // namespace zellive::test
