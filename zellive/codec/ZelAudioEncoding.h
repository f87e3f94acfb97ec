#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "zellive/session/ZelFrame.h"

namespace zellive {

class ZelAudioEncoding;

/// Receives what an audio encoder makes.
class ZelAudioEncodingDelegate {
 public:
  virtual ~ZelAudioEncodingDelegate() = default;
  /// One access unit, in order; called within encodeAudioData, on its thread.
  virtual void audioEncoderAudioFrame(ZelAudioEncoding& /*encoder*/,
                                      std::shared_ptr<const ZelLiveAudioFrame> /*frame*/) {}
};

/// An audio encoder as the session holds it.
class ZelAudioEncoding {
 public:
  virtual ~ZelAudioEncoding() = default;
  /// Takes interleaved signed 16-bit little-endian PCM of any length, also 0. `timeStamp` in milliseconds. The bytes
  /// are read within the call. From one thread at a time.
  virtual void encodeAudioData(std::span<const std::uint8_t> data, std::uint64_t timeStamp) = 0;
  virtual void stopEncoder() = 0;
  /// Thread-safe.
  virtual void setDelegate(std::weak_ptr<ZelAudioEncodingDelegate> delegate) = 0;
};

}  // namespace zellive
