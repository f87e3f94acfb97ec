#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace zellive {

class KeyedArchiver;
class KeyedUnarchiver;

enum ZelLiveAudioQuality : std::uint64_t {
  ZelLiveAudioQualityLow = 0,       ///< 16 kHz stereo, 64 kbit/s.
  ZelLiveAudioQualityMedium = 1,    ///< 44.1 kHz stereo, 96 kbit/s.
  ZelLiveAudioQualityHigh = 2,      ///< 44.1 kHz stereo, 128 kbit/s.
  ZelLiveAudioQualityVeryHigh = 3,  ///< 48 kHz stereo, 128 kbit/s.
  ZelLiveAudioQualityDefault = 99,  ///< 48 kHz mono, 128 kbit/s.
};

/// Audio settings of one run. Set it up before the session starts and leave it alone afterwards: it is shared between
/// the stages and holds no lock.
class ZelLiveAudioConfiguration {
 public:
  using Ptr = std::shared_ptr<ZelLiveAudioConfiguration>;

  /// The preset ZelLiveAudioQualityDefault.
  [[nodiscard]] static Ptr defaultConfiguration();
  /// A value outside the table is ZelLiveAudioQualityDefault.
  [[nodiscard]] static Ptr defaultConfigurationForQuality(std::uint64_t quality);
  /// Reads what encodeWithCoder wrote; a key that is missing or of a wrong type leaves its field 0.
  [[nodiscard]] static Ptr initWithCoder(const KeyedUnarchiver& coder);

  /// All fields 0.
  ZelLiveAudioConfiguration() = default;

  /// 1 or 2. Setting it recomputes asc().
  [[nodiscard]] std::uint64_t numberOfChannels() const noexcept { return numberOfChannels_; }
  void setNumberOfChannels(std::uint64_t channels);
  /// Hz. Setting it recomputes asc().
  [[nodiscard]] std::uint64_t audioSampleRate() const noexcept { return audioSampleRate_; }
  void setAudioSampleRate(std::uint64_t rate);
  /// AAC bit rate, bits per second.
  [[nodiscard]] std::uint64_t audioBitRate() const noexcept { return audioBitRate_; }
  void setAudioBitRate(std::uint64_t bitRate) noexcept { audioBitRate_ = bitRate; }
  /// The AudioSpecificConfig (ISO/IEC 14496-3, 1.6.2.1) for AAC-LC.
  [[nodiscard]] const std::array<std::uint8_t, 2>& asc() const noexcept { return asc_; }
  /// Bytes of one block of 1024 frames of 16-bit samples.
  [[nodiscard]] std::uint64_t bufferLength() const noexcept { return numberOfChannels_ * 2048; }

  /// The MPEG-4 sampling-frequency index of a rate in Hz; 15 for a rate outside the table.
  [[nodiscard]] static std::uint64_t sampleRateIndex(std::uint64_t rate) noexcept;

  void encodeWithCoder(KeyedArchiver& coder) const;
  /// Identity: two distinct configurations are never equal.
  [[nodiscard]] bool isEqual(const ZelLiveAudioConfiguration& other) const noexcept;
  [[nodiscard]] std::uint64_t hash() const;
  /// A new default configuration, whatever this one's values are.
  [[nodiscard]] Ptr copy() const;
  [[nodiscard]] std::string description() const;

 private:
  void updateAsc();

  std::uint64_t numberOfChannels_ = 0;
  std::uint64_t audioSampleRate_ = 0;
  std::uint64_t audioBitRate_ = 0;
  std::array<std::uint8_t, 2> asc_{};
};

}  // namespace zellive
