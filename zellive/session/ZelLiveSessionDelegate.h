#pragma once

#include <cstdint>

#include "zellive/session/ZelLiveDebug.h"

namespace zellive {

class ZelLiveSession;

/// States that the session adds to the publisher's (ZelStreamSocketStatus, 1 to 5).
enum ZelLiveSessionState : std::uint64_t {
  ZelLiveSessionStateCaptureFailed = 6,      ///< Screen broadcast without audio, or an unlisted broadcast error; ended.
  ZelLiveSessionStateBroadcastFailed = 7,    ///< Broadcast error −5801; ended.
  ZelLiveSessionStateBroadcastWarning = 8,   ///< Broadcast error 1201; the stream goes on.
  ZelLiveSessionStateBroadcastInactive = 9,  ///< Broadcast error 1202; the stream goes on.
  ZelLiveSessionStateNoAudio = 20,           ///< Pushed audio expected, none arrived.
  ZelLiveSessionStateNoVideo = 21,           ///< Pushed video expected, none arrived.
};

/// What an application hears from its session. All methods are optional. They must return soon; calling the session
/// from inside one is allowed.
class ZelLiveSessionDelegate {
 public:
  virtual ~ZelLiveSessionDelegate() = default;

  /// A new state: ZelStreamSocketStatus or ZelLiveSessionState. Main queue.
  virtual void liveSessionLiveStateDidChange(ZelLiveSession& session, std::uint64_t state) {
    (void)session, (void)state;
  }
  /// A publisher error: ZelStreamSocketError. The publisher keeps trying. Main queue.
  virtual void liveSessionErrorCode(ZelLiveSession& session, std::uint64_t code) { (void)session, (void)code; }
  /// Frames waiting in the send buffer. The publisher's thread, which is the main queue at present.
  virtual void liveSessionLiveBufferCount(ZelLiveSession& session, std::uint64_t count) { (void)session, (void)count; }
  /// Statistics, at most once a second while frames are sent, if showDebugInfo is set. Main queue.
  virtual void liveSessionDebugInfo(ZelLiveSession& session, const ZelLiveDebug& info) { (void)session, (void)info; }
};

}  // namespace zellive
