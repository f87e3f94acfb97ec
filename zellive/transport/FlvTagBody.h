#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "zellive/session/ZelFrame.h"
#include "zellive/transport/RtmpConnection.h"

namespace zellive {

/// A message body under construction, with room for a chunk header in front. Its memory is kept from one message to the
/// next and only grows.
class RtmpBody {
 public:
  /// Starts a body of `size` bytes, of unspecified values. Spans handed out before are void.
  std::span<std::uint8_t> resize(std::size_t size);
  [[nodiscard]] std::span<std::uint8_t> bytes() noexcept;

 private:
  std::vector<std::uint8_t> block_;
  std::size_t size_ = 0;
};

/// Bodies of audio and video messages: FLV tag bodies (Adobe FLV 10.1, E.4.2 and E.4.3; the AVC decoder
/// configuration record of ISO/IEC 14496-15). Each call replaces what `body` held.

/// True when the parameter sets can be packed: at least the profile and level bytes, and at most 1024 bytes in all.
[[nodiscard]] bool canPackVideoHeader(const ZelLiveVideoFrame& frame);
/// AVC sequence header; only where canPackVideoHeader.
void packVideoHeader(const ZelLiveVideoFrame& frame, RtmpBody& body);
/// One NAL unit with its length in front.
void packVideo(const ZelLiveVideoFrame& frame, RtmpBody& body);
/// AAC sequence header.
void packAudioHeader(const ZelLiveAudioFrame& frame, RtmpBody& body);
/// One raw AAC access unit. The first byte says 44 kHz stereo whatever the stream is, as FLV demands
/// for AAC.
void packAudio(const ZelFrame& frame, RtmpBody& body);

}  // namespace zellive
