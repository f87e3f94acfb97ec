#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "zellive/platform/MediaClock.h"
#include "zellive/platform/Queue.h"

namespace zellive {

/// Time that stands still until it is moved by hand, and queues that run only then, all on the calling thread and in
/// the order in which work falls due: for tests of this library and of applications, which see in microseconds what a
/// stream does in hours. Put it into a Platform as its queues and its clock. Posting is allowed on any thread; the rest
/// belongs to the one thread that moves time.
class ManualTime : public QueueService, public MediaClock {
 public:
  ManualTime();
  ~ManualTime() override;

  std::shared_ptr<Queue> makeSerialQueue(std::string label) override;
  std::shared_ptr<Queue> mainQueue() override { return main_; }
  std::shared_ptr<Queue> globalQueue() override { return global_; }
  [[nodiscard]] std::chrono::nanoseconds now() const override;
  [[nodiscard]] Date date() const override { return Date(std::chrono::duration_cast<Date::duration>(now())); }

  /// Runs everything that is due now, what it posts included.
  void runPending() { advance({}); }
  /// Moves time on by `duration`, stopping at each piece of delayed work to run it at its own time.
  void advance(std::chrono::nanoseconds duration);
  /// Calls the handler of the latest watch.
  void tellReadable();
  /// Drops all work that has not run, and what dropping it posts.
  void dropWork();
  /// Delayed pieces of work that are neither run nor cancelled.
  [[nodiscard]] std::size_t delayedWork() const;
  /// The queues that exist at present, by label.
  [[nodiscard]] std::vector<std::string> liveQueues() const;

 private:
  class ManualQueue;
  struct State;
  /// Runs the next piece of work that is due by `end`, at its own time. False when there is none: it is `end` now.
  bool runNext(std::chrono::nanoseconds end);
  const std::shared_ptr<State> state_;
  const std::shared_ptr<Queue> main_;
  const std::shared_ptr<Queue> global_;
};

}  // namespace zellive
