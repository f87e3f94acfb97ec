#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "zellive/platform/Queue.h"

namespace zellive {

/// The working half of a queue. Its threads own it too, so that a queue may be dropped by its own task.
class QueueCore : public std::enable_shared_from_this<QueueCore> {
 public:
  QueueCore(std::string label, std::size_t threadCount) : label_(std::move(label)), threadCount_(threadCount) {}

  void post(Task task);
  std::shared_ptr<DelayedWork> postAfter(std::chrono::nanoseconds delay, Task task);
  std::unique_ptr<ReadWatch> watch(int descriptor, Task handler);
  /// Drops delayed work and watches, lets the posted tasks run and ends the threads; waits for them unless called on
  /// one of them. Once, as the last call.
  void close();
  [[nodiscard]] bool isCurrent() const;
  [[nodiscard]] const std::string& label() const { return label_; }

 private:
  using Clock = std::chrono::steady_clock;
  using DueKey = std::pair<Clock::time_point, std::uint64_t>;
  struct Delayed;
  struct Watch;
  struct Watched;

  void ensureThreads();
  void run();
  void armTimer();
  void runDue();
  void armWatch(const std::shared_ptr<Watched>& watched);
  void callWatch(const std::weak_ptr<Watched>& weak);
  void endWatch(std::uint64_t id);

  const std::string label_;
  const std::size_t threadCount_;
  asio::io_context context_;
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning_{context_.get_executor()};
  std::atomic<bool> started_ = false;
  std::mutex mutex_;
  // Guarded by mutex_, and destroyed before context_.
  std::vector<std::thread> threads_;
  asio::steady_timer timer_{context_};
  std::map<DueKey, Task> delayed_;
  std::map<std::uint64_t, std::shared_ptr<Watched>> watches_;
  std::uint64_t nextId_ = 0;
};

}  // namespace zellive
