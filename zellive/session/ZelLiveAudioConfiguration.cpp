#include "zellive/session/ZelLiveAudioConfiguration.h"

#include <sys/types.h>

#include <algorithm>
#include <iterator>

#include "zellive/platform/KeyedArchive.h"
#include "zellive/session/FormattedText.h"

namespace zellive {
namespace {

constexpr std::array<std::uint64_t, 13> kSampleRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                        22050, 16000, 12000, 11025, 8000,  7350};
constexpr std::uint64_t kUnlistedSampleRate = 15;

struct Preset {
  std::uint64_t sampleRate;
  std::uint64_t bitRate;
  std::uint64_t channels;
};

constexpr Preset presetOf(std::uint64_t quality) {
  switch (quality) {
    case ZelLiveAudioQualityLow:
      return {16000, 64000, 2};
    case ZelLiveAudioQualityMedium:
      return {44100, 96000, 2};
    case ZelLiveAudioQualityHigh:
      return {44100, 128000, 2};
    case ZelLiveAudioQualityVeryHigh:
      return {48000, 128000, 2};
    default:
      return {48000, 128000, 1};
  }
}

/// The two bytes as the text that archives and hashes hold.
std::string textOf(const std::array<std::uint8_t, 2>& asc) { return {asc.begin(), asc.end()}; }

}  // namespace

ZelLiveAudioConfiguration::Ptr ZelLiveAudioConfiguration::defaultConfiguration() {
  return defaultConfigurationForQuality(ZelLiveAudioQualityDefault);
}

ZelLiveAudioConfiguration::Ptr ZelLiveAudioConfiguration::defaultConfigurationForQuality(std::uint64_t quality) {
  const Preset preset = presetOf(quality);
  auto configuration = std::make_shared<ZelLiveAudioConfiguration>();
  configuration->setAudioBitRate(preset.bitRate);
  configuration->setAudioSampleRate(preset.sampleRate);
  configuration->setNumberOfChannels(preset.channels);
  return configuration;
}

ZelLiveAudioConfiguration::Ptr ZelLiveAudioConfiguration::initWithCoder(const KeyedUnarchiver& coder) {
  auto configuration = std::make_shared<ZelLiveAudioConfiguration>();
  configuration->numberOfChannels_ = coder.decodeUnsigned("numberOfChannels").value_or(0);
  configuration->audioSampleRate_ = coder.decodeUnsigned("audioSampleRate").value_or(0);
  configuration->audioBitRate_ = coder.decodeUnsigned("audioBitRate").value_or(0);
  const std::string asc = coder.decodeString("asc").value_or("");
  if (asc.size() == configuration->asc_.size()) {
    std::copy(asc.begin(), asc.end(), configuration->asc_.begin());
  }
  return configuration;
}

void ZelLiveAudioConfiguration::setNumberOfChannels(std::uint64_t channels) {
  numberOfChannels_ = channels;
  updateAsc();
}

void ZelLiveAudioConfiguration::setAudioSampleRate(std::uint64_t rate) {
  audioSampleRate_ = rate;
  updateAsc();
}

std::uint64_t ZelLiveAudioConfiguration::sampleRateIndex(std::uint64_t rate) noexcept {
  const auto* const found = std::find(kSampleRates.begin(), kSampleRates.end(), rate);
  return found == kSampleRates.end() ? kUnlistedSampleRate
                                     : static_cast<std::uint64_t>(std::distance(kSampleRates.begin(), found));
}

// Object type 2 (5 bits), sampling-frequency index (4), channels (4), and three zero bits.
void ZelLiveAudioConfiguration::updateAsc() {
  const std::uint64_t index = sampleRateIndex(audioSampleRate_);
  asc_[0] = static_cast<std::uint8_t>(0x10 | ((index >> 1) & 7));
  asc_[1] = static_cast<std::uint8_t>(((index & 1) << 7) | ((numberOfChannels_ & 15) << 3));
}

void ZelLiveAudioConfiguration::encodeWithCoder(KeyedArchiver& coder) const {
  coder.encodeUnsigned("numberOfChannels", numberOfChannels_);
  coder.encodeUnsigned("audioSampleRate", audioSampleRate_);
  coder.encodeUnsigned("audioBitRate", audioBitRate_);
  coder.encodeString("asc", textOf(asc_));
}

bool ZelLiveAudioConfiguration::isEqual(const ZelLiveAudioConfiguration& other) const noexcept {
  return this == &other;
}

std::uint64_t ZelLiveAudioConfiguration::hash() const {
  const std::hash<std::uint64_t> number;
  return number(numberOfChannels_) ^ number(audioSampleRate_) ^ number(audioBitRate_) ^
         std::hash<std::string>()(textOf(asc_));
}

ZelLiveAudioConfiguration::Ptr ZelLiveAudioConfiguration::copy() const { return defaultConfiguration(); }

std::string ZelLiveAudioConfiguration::description() const {
  return formattedText(
             "<ZelLiveAudioConfiguration %p> numberOfChannels:%zi audioSampleRate:%zi audioBitRate:%zi audioHeader:",
             static_cast<const void*>(this), static_cast<ssize_t>(numberOfChannels_),
             static_cast<ssize_t>(audioSampleRate_), static_cast<ssize_t>(audioBitRate_)) +
         textOf(asc_);
}

}  // namespace zellive
