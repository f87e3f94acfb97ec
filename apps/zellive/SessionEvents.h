#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "apps/zellive/Waker.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::tool {

/// Brings what a session tells its delegate to the program's own thread.
class SessionEvents : public ZelLiveSessionDelegate {
 public:
  struct Batch {
    struct Report {
      ZelLiveDebug info;
      Waker::Duration time;
    };
    std::vector<std::uint64_t> states;
    std::vector<std::uint64_t> errors;
    std::optional<Report> report;  ///< The last one.
    std::optional<std::uint64_t> bufferCount;
  };

  explicit SessionEvents(std::shared_ptr<Waker> waker) : waker_(std::move(waker)) {}

  /// What has come since the last call.
  [[nodiscard]] Batch take();

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
