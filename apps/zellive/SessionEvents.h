#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "apps/zellive/Waker.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::tool {

/// Brings what a session tells its delegate, and what the library tells of its connection, to the program's own thread.
class SessionEvents : public ZelLiveSessionDelegate {
 public:
  struct Event {
    enum class Kind {
      State,           ///< `code` is the session's state.
      Error,           ///< `code` is the session's error.
      Failure,         ///< A connection failed: an RtmpFailure, and words.
      NetworkOut,      ///< The library waits for the network.
      NetworkChanged,  ///< The network is back, or another.
    };
    Kind kind = Kind::State;
    std::int64_t code = 0;
    std::string words;
  };
  struct Batch {
    struct Report {
      ZelLiveDebug info;
      Waker::Duration time;
    };
    std::vector<Event> events;     ///< In the order in which they came.
    std::optional<Report> report;  ///< The last one.
    std::optional<std::uint64_t> bufferCount;
  };

  explicit SessionEvents(std::shared_ptr<Waker> waker) : waker_(std::move(waker)) {}

  /// What has come since the last call.
  [[nodiscard]] Batch take();
  /// Thread-safe.
  void note(Event event);

  void liveSessionLiveStateDidChange(ZelLiveSession& session, std::uint64_t state) override;
  void liveSessionErrorCode(ZelLiveSession& session, std::uint64_t code) override;
  void liveSessionLiveBufferCount(ZelLiveSession& session, std::uint64_t count) override;
  void liveSessionDebugInfo(ZelLiveSession& session, const ZelLiveDebug& info) override;

 private:
  template <typename Change>
  void add(Change change);

  const std::shared_ptr<Waker> waker_;
  std::mutex mutex_;
  Batch batch_;
};

}  // namespace zellive::tool
