#include "zellive/session/ZelLiveDebug.h"

#include "zellive/session/FormattedText.h"

namespace zellive {

std::string ZelLiveDebug::description() const {
  const double liveTime = startDate && stopDate ? std::chrono::duration<double>(*stopDate - *startDate).count() : 0.0;
  return formattedText(
      "dropFrame:%ld unsendFrame:%ld senfFrame:%ld(a:%ld, v:%ld) totalBandWidth:%0.2fMB(a:%0.2fMB, v:%0.2fMB) "
      "liveTime:%f",
      static_cast<long>(dropFrame), static_cast<long>(unSendCount), static_cast<long>(totalFrame),
      static_cast<long>(captureAudioTotalCount), static_cast<long>(captureVideoTotalCount), dataFlow / 1e6,
      audioDataFlow / 1e6, videoDataFlow / 1e6, liveTime);
}

}  // namespace zellive
