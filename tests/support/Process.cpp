#include "tests/support/Process.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace zellive::test {

TemporaryDirectory::TemporaryDirectory()
    : path_((std::filesystem::temp_directory_path() / "zellive-test-XXXXXX").string()) {
  if (mkdtemp(path_.data()) == nullptr) {
    throw std::runtime_error("no temporary directory");
  }
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string contentsOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Process::Process(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"setpriv", "--pdeathsig", "KILL", "--", "sh", "-c",
                                       R"(exec "$@" < /dev/null >> "$0/1" 2>> "$0/2")", directory_.path()});
  std::vector<char*> pointers;
  for (auto& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  if (posix_spawnp(&pid_, pointers[0], nullptr, nullptr, pointers.data(), environ) != 0) {
    throw std::runtime_error("no process");
  }
}

Process::~Process() {
  signal(SIGKILL);
  waitFor(std::chrono::seconds(10));
}

void Process::signal(int number) {
  if (!status_) {
    kill(pid_, number);
  }
}

bool Process::waitFor(std::chrono::milliseconds limit) {
  const auto ended = [this] {
    siginfo_t how{};
    if (!status_ && waitid(P_PID, static_cast<id_t>(pid_), &how, WEXITED | WNOHANG) == 0 && how.si_pid != 0) {
      status_ = how.si_code == CLD_EXITED ? how.si_status : 128 + how.si_status;
    }
    return status_.has_value();
  };
  return waitUntil(ended, limit);
}

bool Process::waitForText(const std::string& text, std::chrono::milliseconds limit) {
  const auto seen = [&] { return (output() + '\n' + errors()).find(text) != std::string::npos; };
  return waitUntil([&] { return seen() || waitFor(std::chrono::milliseconds(0)); }, limit) && seen();
}

int Process::exitStatus() {
  waitFor(std::chrono::milliseconds(0));
  return status_.value_or(-1);
}

Outcome runProgram(std::vector<std::string> arguments, std::chrono::milliseconds limit) {
  Process process(std::move(arguments));
  const bool ended = process.waitFor(limit);
  return {process.exitStatus(), process.output(), process.errors() + (ended ? "" : "\n(killed: it took too long)")};
}

}  // namespace zellive::test
