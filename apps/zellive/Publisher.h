#pragma once

#include <memory>
#include <optional>
#include <string>

#include "apps/zellive/AppState.h"
#include "apps/zellive/CommandLine.h"
#include "apps/zellive/LibraryLog.h"
#include "apps/zellive/Output.h"
#include "apps/zellive/Programme.h"
#include "apps/zellive/SessionEvents.h"
#include "apps/zellive/StatusMeter.h"
#include "apps/zellive/Troubles.h"
#include "apps/zellive/Waker.h"

namespace zellive::tool {

/// Runs one stream from connection to end, on the thread that calls run().
class Publisher {
 public:
  Publisher(const PublishOptions& options, Programme& programme, std::shared_ptr<AppState> appState,
            std::shared_ptr<Output> output, std::shared_ptr<Waker> waker);
  ~Publisher();
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  /// Returns the program's exit status.
  [[nodiscard]] int run();

 private:
  void start();
  void stop();
  void handleEvents();
  void handle(const SessionEvents::Event& event);
  void handleState(std::uint64_t state);
  void fail(std::uint64_t code, const std::string& reason);
  void step(Waker::Duration now);
  void endOfProgramme(Waker::Duration now);
  void followSignals();
  void sayWhatIsMissing(Waker::Duration now);
  void showStatus(Waker::Duration now);
  [[nodiscard]] Waker::Duration wakeTime(Waker::Duration now);
  [[nodiscard]] StreamStatus status(Waker::Duration now) const;
  [[nodiscard]] bool drained(Waker::Duration now) const;

  /// What the programme is doing.
  enum class Phase {
    Waiting,  ///< For the first connection.
    Streaming,
    Draining,  ///< The programme is over; the send buffer empties.
    Ended,
  };

  const PublishOptions& options_;
  Programme& programme_;
  const std::shared_ptr<AppState> appState_;
  const std::shared_ptr<Output> output_;
  const std::shared_ptr<Waker> waker_;
  const std::shared_ptr<SessionEvents> events_;
  const std::shared_ptr<LibraryLog> log_;
  std::shared_ptr<ZelLiveSession> session_;
  StatusMeter meter_;
  Troubles troubles_;

  Phase phase_ = Phase::Waiting;
  Waker::Duration phaseStart_{};
  Waker::Duration startTime_{};
  Waker::Duration nextStatus_{};
  bool saidWhatIsMissing_ = false;
  std::uint64_t state_ = 0;
  std::uint64_t bufferCount_ = 0;
  std::uint64_t droppedBySession_ = 0;  ///< Once it has ended.
  int exitStatus_ = 0;
};

}  // namespace zellive::tool
