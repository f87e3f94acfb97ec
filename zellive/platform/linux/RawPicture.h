#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "zellive/platform/PixelBuffer.h"

namespace zellive {

/// How cameras lay pictures out in memory, 8 bits a component. Names of RGB forms tell the bytes' order.
enum class RawLayout : std::uint8_t {
  NV12,
  NV21,
  I420,
  YV12,
  YUY2,
  UYVY,
  RGB,
  BGR,
  RGBA,
  BGRA,
  ARGB,
  ABGR,
  I422,  ///< The last two come out of MJPEG only.
  I444,
};

/// A picture in somebody's memory.
struct RawPicture {
  struct Plane {
    const std::uint8_t* base = nullptr;
    std::size_t bytesPerRow = 0;
  };
  RawLayout layout = RawLayout::NV12;
  std::size_t width = 0;
  std::size_t height = 0;
  std::array<Plane, 3> planes{};
  bool fullRange = false;
};

/// How much work an encoding makes, by the name that people write, from 0 for none; nothing when it cannot be read.
[[nodiscard]] std::optional<int> encodingRank(std::string_view encoding);
/// Nothing for encodings that are not raw, or unknown.
[[nodiscard]] std::optional<RawLayout> layoutOf(std::string_view encoding);
[[nodiscard]] bool isRgb(RawLayout layout);
/// In how many planes the layout has its components, one after the other.
[[nodiscard]] std::size_t planeCount(RawLayout layout);

/// Finds the planes of a picture that came as one block. `bytesPerRow` is the first plane's, or 0 when nobody says:
/// then it follows from the block's size. False when the block is too short.
[[nodiscard]] bool findPlanes(RawPicture& picture, std::span<const std::uint8_t> block, std::size_t bytesPerRow);
/// The same with each plane in memory of its own; rows of 0 bytes are as long as their samples.
[[nodiscard]] bool findPlanes(RawPicture& picture, std::span<const std::span<const std::uint8_t>> blocks,
                              std::span<const std::size_t> bytesPerRow);

/// Converts into a bi-planar picture of the same size, in the range of that picture's format. RGB becomes Y, Cb and Cr
/// by the matrix of BT.601.
void toBiPlanar(const RawPicture& from, PixelBuffer& to);

}  // namespace zellive
