#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "zellive/audio/ZelLiveProcessFilterProtocol.h"

struct DenoiseState;

namespace zellive {

/// Suppresses noise in 48 kHz mono speech by a recurrent network, 10 ms at a time. The output lags the input by 10 ms.
///
/// Threads: processAudio on one thread at a time; everything else on any thread at any time.
class ZelLiveRnnoiseFilter final : public ZelLiveProcessFilterProtocol {
 public:
  ZelLiveRnnoiseFilter();

  /// 0 (off, the initial value) to 3; each step allows 20 dB more of attenuation. A value above 3 is ignored.
  void setDenoiseLevel(std::uint32_t level);
  [[nodiscard]] std::uint32_t denoiseLevel() const noexcept { return level_; }
  /// Probability of speech in the last frame, 0 to 1; 1 while the level is 0.
  [[nodiscard]] float vadRatio() const noexcept { return vadRatio_; }

  /// Whole frames of 960 bytes. Other sizes are logged and left as they are. A result beyond 16 bits wraps around.
  void processAudio(std::span<std::uint8_t> bytes) override;

 private:
  struct Destroy {
    void operator()(DenoiseState* state) const noexcept;
  };

  std::unique_ptr<DenoiseState, Destroy> st_;
  std::atomic<float> vadRatio_ = 0;
  std::atomic<std::uint32_t> level_ = 0;
};

}  // namespace zellive
