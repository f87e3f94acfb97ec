#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "zellive/platform/Data.h"
#include "zellive/session/ZelFrame.h"

namespace zellive::bench {

/// Bytes without a pattern, the same in every run.
inline std::vector<std::uint8_t> noise(std::size_t size) {
  std::vector<std::uint8_t> bytes(size);
  std::mt19937 random(1);
  for (auto& byte : bytes) {
    byte = static_cast<std::uint8_t>(random());
  }
  return bytes;
}

inline Data payload(std::size_t size) { return Data::copyOf(noise(size)); }

/// The frames of a stream of 24 pictures and 48 sound frames a second with a key frame every two seconds, one call
/// after another. All pictures share one payload and all sound another.
class FrameMaker {
 public:
  std::shared_ptr<const ZelFrame> next() {
    const std::uint64_t number = count_++;
    return number % 3 == 0 ? video(number) : audio(number);
  }

 private:
  std::shared_ptr<const ZelFrame> video(std::uint64_t number) const {
    auto frame = std::make_shared<ZelLiveVideoFrame>();
    frame->timestamp = number * 1000 / 72;
    frame->data = picture_;
    frame->isKeyFrame = number / 3 % 48 == 0;
    return frame;
  }
  std::shared_ptr<const ZelFrame> audio(std::uint64_t number) const {
    auto frame = std::make_shared<ZelLiveAudioFrame>();
    frame->timestamp = number * 1000 / 72;
    frame->data = sound_;
    return frame;
  }

  const Data picture_ = payload(7800);
  const Data sound_ = payload(340);
  std::uint64_t count_ = 1;
};

}  // namespace zellive::bench
