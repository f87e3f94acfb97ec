#include "zellive/audio/ZelLiveRnnoiseFilter.h"

#include <gtest/gtest.h>
#include <rnnoise.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

using Samples = std::vector<std::int16_t>;
constexpr int kRate = 48000;

double rms(const Samples& samples, std::size_t from) {
  double sum = 0;
  for (std::size_t i = from; i < samples.size(); ++i) {
    sum += static_cast<double>(samples[i]) * samples[i];
  }
  return std::sqrt(sum / static_cast<double>(samples.size() - from));
}

/// The rumble of a room: noise whose power falls by 6 dB an octave.
Samples rumble(double seconds, double level) {
  std::mt19937 random(5);
  std::normal_distribution<double> normal;
  std::vector<double> filtered;
  double state = 0;
  double power = 0;
  for (int i = 0; i < seconds * kRate; ++i) {
    state += 0.03 * (normal(random) - state);
    filtered.push_back(state);
    power += state * state;
  }
  const double gain = level / std::sqrt(power / static_cast<double>(filtered.size()));
  Samples out;
  for (const double v : filtered) {
    out.push_back(static_cast<std::int16_t>(v * gain));
  }
  return out;
}

/// Something voiced: harmonics of a wandering pitch through two formants, in syllables.
Samples voice(double seconds, double level) {
  Samples out;
  double phase = 0;
  for (int i = 0; i < seconds * kRate; ++i) {
    const double t = static_cast<double>(i) / kRate;
    const double pitch = 140 + 20 * std::sin(2 * std::numbers::pi * 0.7 * t);
    phase += 2 * std::numbers::pi * pitch / kRate;
    double sum = 0;
    for (int harmonic = 1; harmonic <= 24; ++harmonic) {
      const double f = harmonic * pitch;
      const double formants = 1 / (1 + std::pow((f - 600) / 250, 2)) + 0.5 / (1 + std::pow((f - 1700) / 300, 2));
      sum += formants * std::sin(harmonic * phase);
    }
    const double syllable = std::max(0.0, std::sin(2 * std::numbers::pi * 2.5 * t));
    out.push_back(static_cast<std::int16_t>(level * syllable * sum));
  }
  return out;
}

void process(ZelLiveRnnoiseFilter& filter, Samples& samples) {
  for (std::size_t i = 0; i + 480 <= samples.size(); i += 480) {
    filter.processAudio({reinterpret_cast<std::uint8_t*>(samples.data() + i), 960});
  }
}

std::shared_ptr<ZelLiveRnnoiseFilter> filterOf(std::uint32_t level) {
  auto filter = std::make_shared<ZelLiveRnnoiseFilter>();
  filter->setDenoiseLevel(level);
  return filter;
}

TEST(RnnoiseFilter, NoiseFallsByWhatTheLevelAllows) {
  const Samples noise = rumble(3, 300);
  struct Row {
    std::uint32_t level;
    double least, most;  // dB
  };
  // The high-pass in front of the network takes up to 1 dB of its own.
  for (const auto& [level, least, most] : {Row{1, 18, 21.5}, Row{2, 38, 41.5}, Row{3, 44, 61.5}}) {
    Samples out = noise;
    const auto filter = filterOf(level);
    process(*filter, out);
    const double attenuation = 20 * std::log10(rms(noise, kRate) / std::max(rms(out, kRate), 1e-3));
    EXPECT_GT(attenuation, least) << "level " << level;
    EXPECT_LT(attenuation, most) << "level " << level;
    EXPECT_LT(filter->vadRatio(), 0.3F);
  }
}

TEST(RnnoiseFilter, VoiceSurvivesAndNoiseInItsPausesDoesNot) {
  Samples mixed = voice(3, 9000);
  const double loudness = rms(mixed, kRate);
  const Samples noise = rumble(3, 300);
  for (std::size_t i = 0; i < mixed.size(); ++i) {
    mixed[i] = static_cast<std::int16_t>(mixed[i] + noise[i]);
  }
  for (std::uint32_t level = 1; level <= 3; ++level) {
    Samples out = mixed;
    process(*filterOf(level), out);
    EXPECT_NEAR(20 * std::log10(rms(out, kRate) / loudness), 0, 2) << "level " << level;
    // The tenth of a second in the middle of each pause, once the network has settled.
    for (double pause = 1.45; pause < 2.7; pause += 0.4) {
      const auto from = static_cast<std::size_t>(pause * kRate);
      const auto part = [from](const Samples& all) {
        const auto begin = all.begin() + static_cast<std::ptrdiff_t>(from);
        return Samples(begin, begin + kRate / 10);
      };
      EXPECT_LT(rms(part(out), 0), 0.3 * rms(part(mixed), 0)) << "level " << level << " at " << pause << " s";
    }
  }
}

TEST(RnnoiseFilter, LevelZeroLeavesAudioAlone) {
  Samples samples = rumble(0.1, 3000);
  const Samples before = samples;
  ZelLiveRnnoiseFilter filter;
  EXPECT_EQ(filter.denoiseLevel(), 0U);
  process(filter, samples);
  EXPECT_EQ(samples, before);
  EXPECT_EQ(filter.vadRatio(), 1.0F);
  filter.setDenoiseLevel(4);
  EXPECT_EQ(filter.denoiseLevel(), 0U);
  filter.setDenoiseLevel(2);
  process(filter, samples);
  EXPECT_NE(samples, before);
  EXPECT_LT(filter.vadRatio(), 1.0F);
}

TEST(RnnoiseFilter, SizesThatAreNotWholeFramesAreRefused) {
  struct Row {
    std::size_t size;
    bool refused;
  };
  for (const auto& [size, refused] : {Row{0, false}, Row{1, false}, Row{2, true}, Row{958, true}, Row{960, false},
                                      Row{961, false}, Row{962, true}, Row{1024, true}, Row{1920, false}}) {
    const test::LogCapture log;
    const auto filter = filterOf(1);
    std::vector<std::uint8_t> bytes(size, 77);
    const auto before = bytes;
    filter->processAudio(bytes);
    EXPECT_EQ(log.count(LogLevel::Information, "Live: rnnoise 不能处理的size: " + std::to_string(size)),
              refused ? 1 : 0);
    EXPECT_EQ(bytes != before, !refused && size >= 960) << size;
  }
}

TEST(RnnoiseFilter, LoudResultsWrapAround) {
  Samples samples(kRate / 2);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] = (i / 40) % 2 == 0 ? std::int16_t{32767} : std::int16_t{-32768};
  }
  const std::unique_ptr<DenoiseState, decltype(&rnnoise_destroy)> state(rnnoise_create(nullptr), rnnoise_destroy);
  rnnoise_set_param(state.get(), 1, 0.1F);
  Samples out = samples;
  process(*filterOf(1), out);
  std::size_t beyond = 0;
  for (std::size_t i = 0; i < samples.size(); i += 480) {
    std::vector<float> frame(samples.begin() + static_cast<std::ptrdiff_t>(i),
                             samples.begin() + static_cast<std::ptrdiff_t>(i + 480));
    rnnoise_process_frame(state.get(), frame.data(), frame.data());
    for (std::size_t k = 0; k < 480; ++k) {
      const double whole = std::trunc(frame[k]);
      beyond += whole > 32767 || whole < -32768 ? 1 : 0;
      const double wrapped = whole - 65536 * std::floor((whole + 32768) / 65536);
      ASSERT_EQ(out[i + k], static_cast<std::int16_t>(wrapped)) << whole;
    }
  }
  EXPECT_GT(beyond, 100U);
}

TEST(RnnoiseParameter, OnlyFloorsFromAMillionthToOneAreTaken) {
  // Noise through a state with the given floor; the floors that are refused act like 1e-6.
  const auto through = [](float floor) {
    const std::unique_ptr<DenoiseState, decltype(&rnnoise_destroy)> state(rnnoise_create(nullptr), rnnoise_destroy);
    rnnoise_set_param(state.get(), 1, floor);
    const Samples noise = rumble(1, 3000);
    std::vector<float> out;
    for (std::size_t i = 0; i < noise.size(); i += 480) {
      float frame[480];
      std::copy_n(noise.begin() + static_cast<std::ptrdiff_t>(i), 480, frame);
      rnnoise_process_frame(state.get(), frame, frame);
      out.insert(out.end(), frame, frame + 480);
    }
    return out;
  };
  const auto smallest = through(1e-6F);
  for (const float refused : {-1.0F, 1.0001F, 9e-7F, std::nanf(""), HUGE_VALF}) {
    EXPECT_TRUE(through(refused) == smallest) << refused;
  }
  EXPECT_FALSE(through(1e-2F) == smallest);
  EXPECT_FALSE(through(0) == through(1));
}

}  // namespace
}  // namespace zellive
