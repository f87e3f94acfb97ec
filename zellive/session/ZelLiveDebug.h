#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "zellive/platform/Geometry.h"
#include "zellive/platform/MediaClock.h"

namespace zellive {

/// Statistics of one publishing run, filled by the publisher after each sent frame. Delegates get a copy of their own.
struct ZelLiveDebug {
  std::string roomID;
  std::string streamID;
  /// The push URL as it was at the start. It holds its owner's key: see maskedUrl before showing it.
  std::string uploadUrl;
  /// Pixels; not filled by the publisher.
  Size videoSize;
  bool isRtmp = false;
  /// Milliseconds since `timestamp`, as of the last sent frame.
  double elapsedMilli = 0;
  /// Media clock in milliseconds at the start of the current interval of one second.
  double timestamp = 0;
  /// Payload bytes sent in the current interval.
  double bandwidth = 0;
  /// Payload bytes sent in the last closed interval.
  double currentBandwidth = 0;
  /// Payload bytes sent in the run: all, audio, video.
  double dataFlow = 0;
  double audioDataFlow = 0;
  double videoDataFlow = 0;
  /// Frames that the send buffer dropped in the run.
  std::int64_t dropFrame = 0;
  /// Frames sent in the run: all, audio, video. A frame is one audio access unit or one NAL unit.
  std::int64_t totalFrame = 0;
  std::int64_t captureAudioTotalCount = 0;
  std::int64_t captureVideoTotalCount = 0;
  /// Frames of the current interval, and of the last closed one.
  std::int64_t captureAudioCount = 0;
  std::int64_t captureVideoCount = 0;
  std::int64_t currentCaptureAudioCount = 0;
  std::int64_t currentCaptureVideoCount = 0;
  /// Frames still queued in the send buffer.
  std::int64_t unSendCount = 0;
  std::optional<Date> startDate;
  std::optional<Date> stopDate;

  /// One line: counts, megabytes (10^6 bytes) and the run's length in seconds, 0 while it has not ended.
  [[nodiscard]] std::string description() const;
};

}  // namespace zellive
