#pragma once

#include "zellive/platform/MediaClock.h"

namespace zellive {

/// The machine's monotonic and calendar clocks.
class SystemClock : public MediaClock {
 public:
  [[nodiscard]] std::chrono::nanoseconds now() const override {
    return std::chrono::steady_clock::now().time_since_epoch();
  }
  [[nodiscard]] Date date() const override { return std::chrono::system_clock::now(); }
};

}  // namespace zellive
