#include "apps/zellive/StatusMeter.h"

namespace zellive::tool {
namespace {

/// Reports come once a second while frames are sent.
constexpr auto silence = std::chrono::milliseconds(2500);

}  // namespace

void StatusMeter::report(const ZelLiveDebug& info, Duration now) {
  const double seconds = std::chrono::duration<double>(now - time_).count();
  hasRates_ = hasReport_ && seconds > 0 && now - time_ < silence;  // An average over an outage is no rate.
  if (hasRates_) {
    bitsPerSecond_ = (info.dataFlow - bytes_) * 8 / seconds;
    framesPerSecond_ = static_cast<double>(info.captureVideoTotalCount - pictures_) / seconds;
  }
  hasReport_ = true;
  time_ = now;
  bytes_ = info.dataFlow;
  pictures_ = info.captureVideoTotalCount;
  dropped_ = info.dropFrame;
}

void StatusMeter::read(StreamStatus& status, Duration now) const {
  const bool fresh = now - time_ < silence;
  if (hasRates_) {
    status.bitsPerSecond = fresh ? bitsPerSecond_ : 0;
    status.framesPerSecond = fresh ? framesPerSecond_ : 0;
  }
  status.dropped = dropped_;
}

}  // namespace zellive::tool
