#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "zellive/platform/Data.h"

namespace zellive {

/// Description of a stream of audio samples.
struct AudioStreamBasicDescription {
  double mSampleRate = 0;  ///< Hz.
  std::uint32_t mFormatID = 0;
  std::uint32_t mFormatFlags = 0;
  std::uint32_t mBytesPerPacket = 0;
  std::uint32_t mFramesPerPacket = 0;
  std::uint32_t mBytesPerFrame = 0;
  std::uint32_t mChannelsPerFrame = 0;
  std::uint32_t mBitsPerChannel = 0;
  std::uint32_t mReserved = 0;
};

inline constexpr std::uint32_t kAudioFormatLinearPCM = 0x6C70636D;  // 'lpcm'
inline constexpr std::uint32_t kAudioFormatMPEG4AAC = 0x61616320;   // 'aac '
inline constexpr std::uint32_t kAudioFormatFlagIsSignedInteger = 1U << 2;
inline constexpr std::uint32_t kAudioFormatFlagIsPacked = 1U << 3;

/// Turns interleaved signed 16-bit PCM into AAC-LC access units (ISO/IEC 14496-3) of 1024 frames. Driven from one
/// thread at a time.
class AudioConverter {
 public:
  /// Receives one raw access unit (no ADTS header) and the reference of the chunk that it was made from.
  using OutputHandler = std::function<void(std::uint64_t reference, Data accessUnit)>;

  virtual ~AudioConverter() = default;
  /// Bits per second; before the first convert. 0, or an error.
  [[nodiscard]] virtual int setEncodeBitRate(std::uint32_t bitRate) = 0;
  /// Takes exactly 1024 frames (channels × 2048 bytes). Calls `output` for each access unit that is now ready, before
  /// it returns. An encoder that looks ahead gives the unit of one chunk during a later call, with the reference of its
  /// own chunk. 0, or an error: the chunk is then lost.
  [[nodiscard]] virtual int convert(std::span<const std::uint8_t> pcm, std::uint64_t reference,
                                    const OutputHandler& output) = 0;
};

/// Makes converters. Thread-safe.
class AudioConverterService {
 public:
  virtual ~AudioConverterService() = default;
  /// Null with `status` set to an error (never 0) when no encoder takes this pair of formats.
  [[nodiscard]] virtual std::unique_ptr<AudioConverter> create(const AudioStreamBasicDescription& input,
                                                               const AudioStreamBasicDescription& output,
                                                               int& status) = 0;
};

}  // namespace zellive
