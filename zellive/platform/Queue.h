#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace zellive {

using Task = std::function<void()>;

/// Handle of work that was scheduled for later. Dropping the handle does not cancel the work.
class DelayedWork {
 public:
  virtual ~DelayedWork() = default;
  /// The work will not start after this returns; one that runs already is not waited for. Thread-safe, idempotent.
  virtual void cancel() = 0;
};

/// Tells when a file descriptor can be read, until it is destroyed.
class ReadWatch {
 public:
  /// After this no further call of the handler begins. Destroy it on the queue that it was made with, or be ready for
  /// one call that is under way.
  virtual ~ReadWatch() = default;
};

/// Runs tasks. A serial queue runs them one at a time in the order in which they were posted; a concurrent one gives no
/// order. Tasks may post to any queue, their own included. All operations are thread-safe.
class Queue {
 public:
  virtual ~Queue() = default;

  /// Posts `task` and returns at once.
  virtual void async(Task task) = 0;
  /// Runs `task` once after `delay` (negative counts as zero). The queue holds the task until then.
  virtual std::shared_ptr<DelayedWork> after(std::chrono::nanoseconds delay, Task task) = 0;
  /// Calls `handler` on this queue each time `descriptor` has something to read (or its peer has gone), until the watch
  /// is destroyed. The descriptor stays the caller's and must outlive the watch. Null where this is not possible.
  virtual std::unique_ptr<ReadWatch> whenReadable(int descriptor, Task handler) = 0;
  /// True when the calling code runs as a task of this queue.
  [[nodiscard]] virtual bool isCurrent() const = 0;
  /// The label given at creation, for people who debug.
  [[nodiscard]] virtual const std::string& label() const = 0;
};

/// Makes and holds queues.
class QueueService {
 public:
  virtual ~QueueService() = default;

  /// A new serial queue. Destroying the last reference lets the tasks posted so far run, drops work that is not yet due
  /// and waits for the running task, unless the queue's own task drops it.
  virtual std::shared_ptr<Queue> makeSerialQueue(std::string label) = 0;
  /// The queue on which the application is called back. Serial; nothing may block it.
  virtual std::shared_ptr<Queue> mainQueue() = 0;
  /// The concurrent queue of default priority, shared by everybody.
  virtual std::shared_ptr<Queue> globalQueue() = 0;
};

}  // namespace zellive
