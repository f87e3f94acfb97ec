#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "zellive/session/ZelFrame.h"

namespace zellive::test {

using Bytes = std::vector<std::uint8_t>;

struct VideoParts {
  bool key = true;
  Bytes data = {0x65, 1};
  Bytes sps = {0x67, 0x64, 0x00, 0x1F};  ///< Empty: absent, as is the PPS.
  Bytes pps = {0x68, 0xEE};
};

inline Data asData(const Bytes& bytes) { return bytes.empty() ? Data() : Data::copyOf(bytes); }

inline std::shared_ptr<const ZelFrame> video(std::uint64_t timestamp, const VideoParts& parts = {}) {
  auto frame = std::make_shared<ZelLiveVideoFrame>();
  frame->timestamp = timestamp;
  frame->isKeyFrame = parts.key;
  frame->data = asData(parts.data);
  frame->sps = asData(parts.sps);
  frame->pps = asData(parts.pps);
  return frame;
}

inline std::shared_ptr<const ZelFrame> audio(std::uint64_t timestamp, const Bytes& data = {1, 2, 3, 4},
                                             const Bytes& info = {0x11, 0x88}) {
  auto frame = std::make_shared<ZelLiveAudioFrame>();
  frame->timestamp = timestamp;
  frame->data = asData(data);
  frame->audioInfo = asData(info);
  return frame;
}

}  // namespace zellive::test
