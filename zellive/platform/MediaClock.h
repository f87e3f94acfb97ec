#pragma once

#include <chrono>

namespace zellive {

using Date = std::chrono::system_clock::time_point;

/// The source of all time in the library. Thread-safe.
class MediaClock {
 public:
  virtual ~MediaClock() = default;
  /// Monotonic time since an arbitrary start; never goes backwards.
  [[nodiscard]] virtual std::chrono::nanoseconds now() const = 0;
  /// Calendar time.
  [[nodiscard]] virtual Date date() const = 0;
  /// now() in milliseconds with fractions.
  [[nodiscard]] double milliseconds() const { return std::chrono::duration<double, std::milli>(now()).count(); }
};

}  // namespace zellive
