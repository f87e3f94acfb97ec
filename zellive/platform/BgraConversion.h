#pragma once

#include "zellive/platform/PixelBuffer.h"

namespace zellive {

/// Writes a picture's colours into `to`, a BGRA picture of the same size. Y, Cb and Cr are read by the picture's own
/// range and matrix, one that is unspecified as BT.601. False when `to` is of another format or size, or `from` has a
/// side above 16384 pixels or rows above 2 GiB. Thread-safe.
[[nodiscard]] bool convertToBgra(const PixelBuffer& from, const PixelBuffer& to);

}  // namespace zellive
