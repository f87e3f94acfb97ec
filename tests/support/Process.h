#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zellive::test {

/// Looks every 20 ms until it holds; false after `limit`.
template <typename Condition>
bool waitUntil(Condition holds, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

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

/// Everything in a file; empty when there is none.
[[nodiscard]] std::string contentsOf(const std::string& path);

/// A program that runs beside the test, used by one thread. It dies with that thread, however the test ends.
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
  [[nodiscard]] int exitStatus();
  /// What it has written so far.
  [[nodiscard]] std::string output() const { return contentsOf(directory_.path() + "/1"); }
  [[nodiscard]] std::string errors() const { return contentsOf(directory_.path() + "/2"); }

 private:
  TemporaryDirectory directory_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

/// Runs a program to its end, `limit` at most.
struct Outcome {
  int status = -1;
  std::string output;
  std::string errors;
};
[[nodiscard]] Outcome runProgram(std::vector<std::string> arguments,
                                 std::chrono::milliseconds limit = std::chrono::seconds(60));

}  // namespace zellive::test
