#pragma once

#include <chrono>

#include "apps/zellive/Output.h"
#include "zellive/session/ZelLiveDebug.h"

namespace zellive::tool {

/// Turns the session's running totals into rates. Time is an argument.
class StatusMeter {
 public:
  using Duration = std::chrono::nanoseconds;

  /// A report of the session's that came at `now`.
  void report(const ZelLiveDebug& info, Duration now);
  /// Writes rates and the count of dropped frames into `status`; rates are not known at first and after an outage,
  /// and 0 when no report has come for a while.
  void read(StreamStatus& status, Duration now) const;
  [[nodiscard]] bool hasReport() const { return hasReport_; }
  [[nodiscard]] bool hasRates() const { return hasRates_; }

 private:
  bool hasReport_ = false;
  bool hasRates_ = false;
  Duration time_{};
  double bytes_ = 0;
  std::int64_t pictures_ = 0;
  double bitsPerSecond_ = 0;
  double framesPerSecond_ = 0;
  std::int64_t dropped_ = 0;
};

}  // namespace zellive::tool
