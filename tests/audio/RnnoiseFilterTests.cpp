#include "zellive/audio/ZelLiveRnnoiseFilter.h"

#include <gtest/gtest.h>
#include <rnnoise.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

using Samples = std::vector<std::int16_t>;
constexpr int kRate = 48000;
constexpr double kTurn = 2 * std::numbers::pi;

double rms(std::span<const std::int16_t> samples) {
  double sum = 0;
  for (const double sample : samples) {
    sum += sample * sample;
  }
  return std::sqrt(sum / static_cast<double>(samples.size()));
}

/// The rumble of a room: noise whose power falls by 6 dB an octave.
Samples rumble(double seconds, double level) {
  std::mt19937 random(5);
  std::normal_distribution<double> normal;
  Samples out(static_cast<std::size_t>(seconds * kRate));
  double state = 0;
  for (auto& sample : out) {
    state += 0.03 * (normal(random) - state);
    sample = static_cast<std::int16_t>(state * level / std::sqrt(0.03 / 1.97));
  }
  return out;
}

/// Something voiced: harmonics of a wandering pitch through two formants, in syllables.
Samples voice(double seconds, double level) {
  Samples out;
  double phase = 0;
  for (int i = 0; i < seconds * kRate; ++i) {
    const double t = static_cast<double>(i) / kRate;
    const double pitch = 140 + 20 * std::sin(kTurn * 0.7 * t);
    phase += kTurn * pitch / kRate;
    double sum = 0;
    for (int harmonic = 1; harmonic <= 24; ++harmonic) {
      const double f = harmonic * pitch;
      const double formants = 1 / (1 + std::pow((f - 600) / 250, 2)) + 0.5 / (1 + std::pow((f - 1700) / 300, 2));
      sum += formants * std::sin(harmonic * phase);
    }
    out.push_back(static_cast<std::int16_t>(level * std::max(0.0, std::sin(kTurn * 2.5 * t)) * sum));
  }
  return out;
}

Samples processed(ZelLiveRnnoiseFilter& filter, Samples samples) {
  for (std::size_t i = 0; i < samples.size(); i += 960) {  // Two frames a call.
    filter.processAudio({reinterpret_cast<std::uint8_t*>(samples.data() + i), 1920});
  }
  return samples;
}

/// What the suppressor itself makes of it with the given floor.
std::vector<float> plainly(const Samples& samples, float floor) {
  const std::unique_ptr<DenoiseState, decltype(&rnnoise_destroy)> state(rnnoise_create(nullptr), rnnoise_destroy);
  rnnoise_set_param(state.get(), 1, floor);
  std::vector<float> out(samples.begin(), samples.end());
  for (std::size_t i = 0; i < out.size(); i += 480) {
    rnnoise_process_frame(state.get(), out.data() + i, out.data() + i);
  }
  return out;
}

TEST(RnnoiseFilter, NoiseFallsByWhatTheLevelAllowsAndVoiceSurvives) {
  const Samples noise = rumble(3, 300);
  const Samples clean = voice(3, 9000);
  Samples mixed = noise;
  std::transform(mixed.begin(), mixed.end(), clean.begin(), mixed.begin(), std::plus<>());
  const auto decibels = [](const Samples& numerator, const Samples& denominator, std::size_t from, std::size_t count) {
    return 20 * std::log10(rms(std::span(numerator).subspan(from, count)) /
                           rms(std::span(denominator).subspan(from, count)));
  };
  // The high-pass in front of the network takes up to 1 dB of its own.
  for (const auto& [level, least, most] : {std::tuple{1U, 18.0, 21.5}, {2U, 38.0, 41.5}, {3U, 44.0, 61.5}}) {
    ZelLiveRnnoiseFilter filter;
    filter.setDenoiseLevel(level);
    const double attenuation = -decibels(processed(filter, noise), noise, kRate, 2 * kRate);
    EXPECT_TRUE(least < attenuation && attenuation < most) << "level " << level << ": " << attenuation;
    EXPECT_LT(filter.vadRatio(), 0.3F);
    const Samples out = processed(filter, mixed);
    EXPECT_NEAR(decibels(out, clean, kRate, 2 * kRate), 0, 2) << "level " << level;
    // The tenth of a second in the middle of each pause, once the network has settled.
    for (std::size_t pause = kRate * 145 / 100; pause < kRate * 27 / 10; pause += kRate * 2 / 5) {
      EXPECT_LT(decibels(out, mixed, pause, kRate / 10), -10) << "level " << level << " at sample " << pause;
    }
  }
}

TEST(RnnoiseFilter, LevelZeroLeavesAudioAlone) {
  const Samples samples = rumble(0.1, 3000);
  ZelLiveRnnoiseFilter filter;
  EXPECT_EQ(processed(filter, samples), samples);
  EXPECT_EQ(filter.vadRatio(), 1.0F);
  filter.setDenoiseLevel(4);
  EXPECT_EQ(filter.denoiseLevel(), 0U);
  filter.setDenoiseLevel(2);
  EXPECT_NE(processed(filter, samples), samples);
  EXPECT_LT(filter.vadRatio(), 1.0F);
}

TEST(RnnoiseFilter, SizesThatAreNotWholeFramesAreRefused) {
  ZelLiveRnnoiseFilter filter;
  filter.setDenoiseLevel(1);
  for (const std::size_t size : {0, 1, 2, 958, 960, 961, 962, 1024, 1920}) {
    const test::LogCapture log;
    const std::vector<std::uint8_t> before(size, 77);
    auto bytes = before;
    filter.processAudio(bytes);
    const bool refused = size % 960 > 1;  // A stray byte does no harm.
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
  const auto plain = plainly(samples, 0.1F);
  ZelLiveRnnoiseFilter filter;
  filter.setDenoiseLevel(1);
  const Samples out = processed(filter, samples);
  int beyond = 0;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const double whole = std::trunc(plain[i]);
    beyond += whole > 32767 || whole < -32768 ? 1 : 0;
    ASSERT_EQ(out[i], static_cast<std::int16_t>(whole - 65536 * std::floor((whole + 32768) / 65536))) << whole;
  }
  EXPECT_GT(beyond, 100);
}

}  // namespace
}  // namespace zellive
