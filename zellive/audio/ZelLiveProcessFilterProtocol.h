#pragma once

#include <cstdint>
#include <span>

namespace zellive {

/// One step of the audio pool's processing.
class ZelLiveProcessFilterProtocol {
 public:
  virtual ~ZelLiveProcessFilterProtocol() = default;
  /// Changes 16-bit native-endian PCM in place; the pool passes 960 bytes (480 samples) at a time. Called on the thread
  /// that delivers audio; `bytes` is valid for the call only and may have any alignment.
  virtual void processAudio(std::span<std::uint8_t> bytes) = 0;
};

}  // namespace zellive
