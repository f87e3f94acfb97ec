#pragma once

#include <cstdint>

namespace zellive {

/// A moment of a medium: `value` units of 1 / `timescale` seconds.
struct MediaTime {
  static constexpr std::uint32_t kValid = 1;
  static constexpr std::uint32_t kIndefinite = 16;

  std::int64_t value = 0;
  std::int32_t timescale = 0;
  std::uint32_t flags = 0;  ///< kValid, kIndefinite; 0 for no time at all.
  std::int64_t epoch = 0;

  [[nodiscard]] static constexpr MediaTime make(std::int64_t value, std::int32_t timescale) {
    return {value, timescale, kValid, 0};
  }
  /// The time of a still picture, which is any.
  [[nodiscard]] static constexpr MediaTime indefinite() { return {0, 0, kValid | kIndefinite, 0}; }
  [[nodiscard]] constexpr bool isIndefinite() const { return (flags & kValid) != 0 && (flags & kIndefinite) != 0; }
  friend bool operator==(const MediaTime&, const MediaTime&) = default;
};

}  // namespace zellive
