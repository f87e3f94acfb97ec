#pragma once

#include <cstdint>

#include "zellive/platform/Data.h"

namespace zellive {

enum class ZelFrameKind : std::uint8_t { Other, Audio, Video };

/// One encoded access unit. Filled by its producer, then handed on as `std::shared_ptr<const …>` and never changed
/// again. The payload is shared, not copied.
struct ZelFrame {
  ZelFrame() = default;
  ZelFrame(const ZelFrame&) = default;
  ZelFrame& operator=(const ZelFrame&) = default;
  virtual ~ZelFrame() = default;

  /// Which of the subclasses this is; cheaper than a dynamic_cast on the sending path.
  [[nodiscard]] virtual ZelFrameKind kind() const noexcept { return ZelFrameKind::Other; }

  /// Presentation time on the session's clock, in milliseconds. Becomes the FLV tag timestamp.
  std::uint64_t timestamp = 0;
  /// The encoded payload; see the subclasses.
  Data data;
  /// Reserved: nothing sets it, nothing reads it.
  Data header;
};

/// One H.264 NAL unit (ISO/IEC 14496-10) without start code or length prefix.
struct ZelLiveVideoFrame final : ZelFrame {
  [[nodiscard]] ZelFrameKind kind() const noexcept override { return ZelFrameKind::Video; }

  /// True when the picture that this NAL unit belongs to is a sync sample.
  bool isKeyFrame = false;
  /// The parameter sets in force, bare; absent before the first key frame.
  Data sps;
  Data pps;

  /// Supplemental enhancement information (ISO/IEC 14496-10, 7.4.1), which holds nothing of the picture itself.
  [[nodiscard]] bool isSupplement() const noexcept { return data.length() > 0 && (*data.bytes() & 0x1F) == 6; }
};

/// One raw AAC access unit (ISO/IEC 14496-3), no ADTS header.
struct ZelLiveAudioFrame final : ZelFrame {
  [[nodiscard]] ZelFrameKind kind() const noexcept override { return ZelFrameKind::Audio; }

  /// The stream's AudioSpecificConfig, exactly 2 bytes.
  Data audioInfo;
};

}  // namespace zellive
