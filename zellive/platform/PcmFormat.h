#pragma once

#include <cstdint>

#include "zellive/platform/AudioConverter.h"

namespace zellive {

/// The status of whoever is asked for a format that it does not have.
inline constexpr int kUnsupportedAudioFormat = -10868;

/// Interleaved, packed, signed 16-bit linear PCM; `rate` in hertz.
[[nodiscard]] inline AudioStreamBasicDescription sixteenBitPcm(double rate, std::uint32_t channels) {
  return {.mSampleRate = rate,
          .mFormatID = kAudioFormatLinearPCM,
          .mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked,
          .mBytesPerPacket = 2 * channels,
          .mFramesPerPacket = 1,
          .mBytesPerFrame = 2 * channels,
          .mChannelsPerFrame = channels,
          .mBitsPerChannel = 16};
}

/// Whether it is interleaved, packed, signed 16-bit linear PCM of a rate and channel count that make sense.
[[nodiscard]] inline bool isSixteenBitPcm(const AudioStreamBasicDescription& format) {
  return format.mFormatID == kAudioFormatLinearPCM &&
         format.mFormatFlags == (kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked) &&
         format.mBitsPerChannel == 16 && format.mChannelsPerFrame >= 1 && format.mChannelsPerFrame <= 64 &&
         format.mBytesPerFrame == 2 * format.mChannelsPerFrame && format.mSampleRate >= 1000 &&
         format.mSampleRate <= 768000;
}

}  // namespace zellive
