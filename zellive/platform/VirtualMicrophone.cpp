#include "zellive/platform/VirtualMicrophone.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

namespace zellive {
namespace {

constexpr double kTurn = 2 * std::numbers::pi;

/// One sound on every channel, made frame by frame.
class MonoSound : public VirtualMicrophoneSound {
 public:
  explicit MonoSound(std::uint32_t channels) : channels_(channels) {}
  void render(std::int64_t position, std::span<std::int16_t> samples) override {
    for (; samples.size() >= channels_; samples = samples.subspan(channels_)) {
      std::ranges::fill(samples.first(channels_), frame(position++));
    }
  }

 protected:
  virtual std::int16_t frame(std::int64_t position) = 0;

 private:
  const std::uint32_t channels_;
};

class Tone : public MonoSound {
 public:
  Tone(std::uint32_t sampleRate, std::uint32_t channels)
      : MonoSound(channels), sampleRate_(sampleRate), beep_(sampleRate * kBeatLength.count() / 1000) {
    constexpr double amplitude = 0.5 * 32767;
    constexpr double frequency = 1000;
    for (std::size_t i = 0; i < beep_.size(); ++i) {
      const double value = amplitude * std::sin(kTurn * frequency * static_cast<double>(i) / sampleRate);
      beep_[i] = static_cast<std::int16_t>(std::lround(value));
    }
  }

 private:
  std::int16_t frame(std::int64_t position) override {
    const auto sinceBeat = static_cast<std::size_t>(position % sampleRate_);
    return sinceBeat < beep_.size() ? beep_[sinceBeat] : std::int16_t{0};
  }

  const std::int64_t sampleRate_;
  std::vector<std::int16_t> beep_;
};

/// A vocal tract in one place: a resonance that rings at `frequency` and dies away within the band's inverse.
class Resonance {
 public:
  void tune(double frequency, double band, double sampleRate) {
    const double radius = std::exp(-std::numbers::pi * band / sampleRate);
    back1_ = 2 * radius * std::cos(kTurn * frequency / sampleRate);
    back2_ = -radius * radius;
    gain_ = 1 - back1_ - back2_;
  }
  double pass(double input) {
    const double output = gain_ * input + back1_ * last_ + back2_ * beforeLast_;
    beforeLast_ = last_;
    return last_ = output;
  }

 private:
  double gain_ = 0;
  double back1_ = 0;
  double back2_ = 0;
  double last_ = 0;
  double beforeLast_ = 0;
};

class Speech : public MonoSound {
 public:
  Speech(std::uint32_t sampleRate, std::uint32_t channels) : MonoSound(channels), sampleRate_(sampleRate) {}

 private:
  /// Hz, as grown-ups speak them: a, e, i, o, u.
  static constexpr std::array<std::array<double, 3>, 5> kVowels{
      {{730, 1090, 2440}, {530, 1840, 2480}, {270, 2290, 3010}, {570, 840, 2410}, {300, 870, 2240}}};
  static constexpr double kSyllable = 0.22;  // Seconds.
  static constexpr int kSyllables = 9;       // Of which the last ones are a pause for breath.
  static constexpr int kSpoken = 6;

  std::int16_t frame(std::int64_t position) override {
    const double time = static_cast<double>(position) / sampleRate_;
    const auto syllable = static_cast<std::int64_t>(time / kSyllable);
    const double part = time / kSyllable - static_cast<double>(syllable);
    if (syllable != syllable_) {
      syllable_ = syllable;
      const auto& vowel = kVowels[static_cast<std::size_t>(syllable * 7 % 5)];
      for (std::size_t i = 0; i < vowel.size(); ++i) {
        tract_[i].tune(std::min(vowel[i], 0.45 * sampleRate_), 60 + 40 * static_cast<double>(i), sampleRate_);
      }
    }
    // The voice falls over a sentence and rises within a syllable.
    const auto inSentence = static_cast<double>(syllable % kSyllables);
    const double pitch = 135 - 4 * inSentence + 12 * std::sin(std::numbers::pi * part);
    phase_ += pitch / sampleRate_;
    double pulse = 0;
    if (phase_ >= 1) {
      phase_ -= 1;
      pulse = 1;
    }
    const double loudness = syllable % kSyllables < kSpoken ? std::sin(std::numbers::pi * part) : 0;
    double voice = pulse * loudness * sampleRate_ / pitch;
    for (Resonance& resonance : tract_) {
      voice = resonance.pass(voice);
    }
    const double noise = std::normal_distribution<double>(0, 1)(random_);
    return static_cast<std::int16_t>(std::lround(std::clamp(220 * voice + 300 * noise, -32768.0, 32767.0)));
  }

  const double sampleRate_;
  std::int64_t syllable_ = -1;
  double phase_ = 0;
  std::array<Resonance, 3> tract_;
  std::minstd_rand random_;
};

template <typename Sound>
VirtualMicrophone microphone(const char* uniqueID, const char* localizedName) {
  VirtualMicrophone made;
  made.uniqueID = uniqueID;
  made.localizedName = localizedName;
  made.makeSound = [](std::uint32_t sampleRate, std::uint32_t channels) {
    return std::make_unique<Sound>(sampleRate, channels);
  };
  return made;
}

}  // namespace

VirtualMicrophone toneMicrophone() { return microphone<Tone>("zellive.tone", "tone"); }

VirtualMicrophone speechMicrophone() { return microphone<Speech>("zellive.speech", "speech with noise"); }

}  // namespace zellive
