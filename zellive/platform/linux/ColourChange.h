#pragma once

#include <array>
#include <cstdint>

#include "zellive/platform/linux/FfmpegSupport.h"

namespace zellive {

/// What a value of video range is in full range, or the other way round (ITU-T H.273).
using RangeTable = std::array<std::uint8_t, 256>;
[[nodiscard]] const RangeTable& rangeTable(bool toFull, bool chroma);

/// Planar 4:2:0 in place, from video range to full range, or back.
void changeRange(AVFrame& frame, bool toFull);
/// The same from the matrix of BT.601 to that of BT.709, or back, in the frame's range. Both sides of the frame are
/// even.
void changeMatrix(AVFrame& frame, bool fullRange, bool toBT709);

}  // namespace zellive
