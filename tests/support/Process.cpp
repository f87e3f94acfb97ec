#include "tests/support/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <stdexcept>

namespace zellive::test {
namespace {

[[noreturn]] void becomeProgram(const std::vector<char*>& arguments, int out, int err, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(127);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  const int nothing = open("/dev/null", O_RDONLY);
  dup2(nothing, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

}  // namespace

Process::Process(std::vector<std::string> arguments) {
  std::vector<char*> pointers;
  for (auto& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t parent = getpid();
  std::promise<void> started;
  // The kernel ends a child when the thread that made it ends, so the thread that stays to the end makes it.
  auto begun = started.get_future();
  reader_ = std::thread([this, pointers, out, err, parent, &started] {
    pid_ = fork();
    if (pid_ == 0) {
      becomeProgram(pointers, out[1], err[1], parent);
    }
    close(out[1]);
    close(err[1]);
    started.set_value();
    read(out[0], err[0]);
  });
  begun.wait();
  if (pid_ < 0) {
    reader_.join();
    throw std::runtime_error("cannot start " + arguments[0]);
  }
}

void Process::read(int out, int err) {
  std::array<pollfd, 2> descriptors{{{out, POLLIN, 0}, {err, POLLIN, 0}}};
  std::array<char, 4096> buffer{};
  int open = 2;
  while (open > 0 && poll(descriptors.data(), descriptors.size(), -1) > 0) {
    for (std::size_t i = 0; i < descriptors.size(); ++i) {
      if (descriptors[i].fd < 0 || descriptors[i].revents == 0) {
        continue;
      }
      const auto count = ::read(descriptors[i].fd, buffer.data(), buffer.size());
      if (count <= 0) {
        close(descriptors[i].fd);
        descriptors[i].fd = -1;
        --open;
        continue;
      }
      const std::lock_guard lock(mutex_);
      (i == 0 ? output_ : errors_).append(buffer.data(), static_cast<std::size_t>(count));
      changed_.notify_all();
    }
  }
  int status = 0;
  siginfo_t information{};
  if (pid_ > 0) {
    // Seen but not collected until the lock is held, so that signal() never hits a stranger.
    waitid(P_PID, static_cast<id_t>(pid_), &information, WEXITED | WNOWAIT);
  }
  const std::lock_guard lock(mutex_);
  if (pid_ > 0) {
    waitpid(pid_, &status, 0);
  }
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  ended_ = true;
  changed_.notify_all();
}

Process::~Process() {
  signal(SIGKILL);
  reader_.join();
}

void Process::signal(int number) {
  const std::lock_guard lock(mutex_);
  if (!ended_) {
    kill(pid_, number);
  }
}

bool Process::waitFor(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [this] { return ended_; });
}

int Process::exitStatus() const {
  const std::lock_guard lock(mutex_);
  return ended_ ? status_ : -1;
}

std::string Process::output() const {
  const std::lock_guard lock(mutex_);
  return output_;
}

std::string Process::errors() const {
  const std::lock_guard lock(mutex_);
  return errors_;
}

bool Process::waitForText(const std::string& text, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  const auto seen = [&] { return output_.find(text) != std::string::npos || errors_.find(text) != std::string::npos; };
  changed_.wait_for(lock, limit, [&] { return ended_ || seen(); });
  return seen();
}

Outcome runProgram(std::vector<std::string> arguments, std::chrono::milliseconds limit) {
  Process process(std::move(arguments));
  if (!process.waitFor(limit)) {
    return {-1, process.output(), process.errors() + "\n(killed: it took too long)"};
  }
  return {process.exitStatus(), process.output(), process.errors()};
}

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

}  // namespace zellive::test
