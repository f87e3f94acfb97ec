#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zellive::test {

/// A program that runs beside the test. It dies with the test, however the test ends.
class Process {
 public:
  /// Starts `arguments[0]`, searched on the path; status 127 when there is no such program.
  explicit Process(std::vector<std::string> arguments);
  /// Kills the program if it still runs.
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  [[nodiscard]] pid_t id() const { return pid_; }
  void signal(int number);
  /// Waits for the end; false when `limit` comes first.
  bool waitFor(std::chrono::milliseconds limit);
  /// Waits until output() or errors() contains `text`; false when `limit` or the program's end comes first.
  bool waitForText(const std::string& text, std::chrono::milliseconds limit);
  /// After the end: the exit status, or 128 + the signal. Before it: −1.
  [[nodiscard]] int exitStatus() const;
  /// What it has written so far.
  [[nodiscard]] std::string output() const;
  [[nodiscard]] std::string errors() const;

 private:
  void run(std::vector<std::string> arguments, const std::function<void()>& started);

  pid_t pid_ = -1;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string output_;
  std::string errors_;
  std::optional<int> status_;
  std::thread thread_;
};

/// Runs a program to its end, `limit` at most.
struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;
};
[[nodiscard]] Outcome runProgram(std::vector<std::string> arguments,
                                 std::chrono::milliseconds limit = std::chrono::seconds(60));

/// A directory of the test's own, removed with everything in it.
class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace zellive::test
