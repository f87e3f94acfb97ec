#include "tests/support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

extern "C" {  // Which glibc 2.36 leaves out.
#include <sys/pidfd.h>
}

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
  arguments.insert(arguments.begin(), {"setpriv", "--pdeathsig", "KILL", "--"});
  std::vector<char*> pointers;
  for (auto& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  for (const int stream : {1, 2}) {
    const auto path = directory_.path() + "/" + std::to_string(stream);
    posix_spawn_file_actions_addopen(&files, stream, path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  }
  const int error = posix_spawnp(&pid_, pointers[0], &files, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  descriptor_ = error == 0 ? pidfd_open(pid_, 0) : -1;
  if (descriptor_ < 0) {
    throw std::runtime_error("no process");
  }
}

Process::~Process() {
  signal(SIGKILL);
  waitFor(std::chrono::seconds(10));
  close(descriptor_);
}

void Process::signal(int number) { pidfd_send_signal(descriptor_, number, nullptr, 0); }

bool Process::waitFor(std::chrono::milliseconds limit) {
  pollfd end{descriptor_, POLLIN, 0};
  if (!status_ && poll(&end, 1, static_cast<int>(limit.count())) > 0) {
    siginfo_t how{};
    waitid(P_PIDFD, static_cast<id_t>(descriptor_), &how, WEXITED);
    status_ = how.si_code == CLD_EXITED ? how.si_status : 128 + how.si_status;
  }
  return status_.has_value();
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
