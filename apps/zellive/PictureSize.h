#pragma once

#include <optional>
#include <string>

namespace zellive::tool {

/// Pixels.
struct PictureSize {
  int width = 0;
  int height = 0;
  friend bool operator==(const PictureSize&, const PictureSize&) = default;
};

/// "1280x720".
[[nodiscard]] std::string toText(PictureSize size);

/// Whether pictures of one size fill a stream of the other without bars: the library compares width ÷ height to two
/// decimals.
[[nodiscard]] bool sameShape(PictureSize a, PictureSize b);

/// The size at which to stream pictures of `source`: their shape, both sides even, neither the short side nor the area
/// above those of `limit`, and not larger than the source.
[[nodiscard]] PictureSize fitSize(PictureSize source, PictureSize limit);

}  // namespace zellive::tool
