#pragma once

#include <chrono>

namespace zellive::tool {

/// Tells when media falls due, so that it leaves in real time. Time is an argument: any steady clock will do.
///
/// After a stall (a suspended machine, a slow disk) at most `maximumLag` of media is sent in a burst; the rest of the
/// delay stays, as it would with a camera.
class Pacer {
 public:
  using Duration = std::chrono::nanoseconds;

  explicit Pacer(Duration maximumLag) : maximumLag_(maximumLag) {}

  /// Media time 0 is due at `now`.
  void start(Duration now) { origin_ = now; }

  /// When the media at `mediaTime` is due; moves the whole schedule when that is further back than maximumLag.
  [[nodiscard]] Duration due(Duration mediaTime, Duration now) {
    const Duration planned = origin_ + mediaTime;
    if (now - planned <= maximumLag_) {
      return planned;
    }
    origin_ = now - maximumLag_ - mediaTime;
    return now - maximumLag_;
  }

 private:
  const Duration maximumLag_;
  Duration origin_{};
};

}  // namespace zellive::tool
