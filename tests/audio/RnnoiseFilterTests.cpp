#include "zellive/audio/ZelLiveRnnoiseFilter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

using Samples = std::vector<std::int16_t>;
constexpr std::size_t kRate = 48000;

double power(std::span<const std::int16_t> samples) {
  double sum = 0;
  for (const double sample : samples) {
    sum += sample * sample;
  }
  return sum;
}

/// The rumble of a room: noise whose power falls by 6 dB an octave.
Samples rumble(std::size_t length) {
  std::mt19937 random(5);
  std::normal_distribution<double> normal;
  Samples out(length);
  double state = 0;
  for (auto& sample : out) {
    state += 0.03 * (normal(random) - state);
    sample = static_cast<std::int16_t>(state * 2400);
  }
  return out;
}

Samples processed(ZelLiveRnnoiseFilter& filter, Samples samples) {
  for (std::size_t i = 0; i < samples.size(); i += 960) {  // Two frames a call.
    filter.processAudio({reinterpret_cast<std::uint8_t*>(samples.data() + i), 1920});
  }
  return samples;
}

TEST(RnnoiseFilter, NoiseFallsByWhatTheLevelAllows) {
  const Samples noise = rumble(3 * kRate);
  // The high-pass in front of the network takes up to 1 dB of its own.
  for (const auto& [level, least, most] : {std::tuple{1U, 18.0, 21.5}, {2U, 38.0, 41.5}, {3U, 44.0, 61.5}}) {
    ZelLiveRnnoiseFilter filter;
    filter.setDenoiseLevel(level);
    const Samples out = processed(filter, noise);
    const double fall =
        10 * std::log10(power(std::span(noise).last(2 * kRate)) / power(std::span(out).last(2 * kRate)));
    EXPECT_TRUE(least < fall && fall < most) << "level " << level << ": " << fall;
    EXPECT_LT(filter.vadRatio(), 0.3F);
  }
}

TEST(RnnoiseFilter, LevelZeroAndPartsOfFramesAreLeftAlone) {
  const Samples samples = rumble(kRate / 10);
  ZelLiveRnnoiseFilter filter;
  EXPECT_EQ(processed(filter, samples), samples);
  EXPECT_EQ(filter.vadRatio(), 1.0F);
  filter.setDenoiseLevel(1);
  std::vector<std::uint8_t> part(962, 77);
  filter.processAudio(part);
  EXPECT_EQ(part, std::vector<std::uint8_t>(962, 77)) << "no whole number of frames";
}

}  // namespace
}  // namespace zellive
