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
#include <utility>

namespace zellive::test {
namespace {

[[noreturn]] void becomeProgram(const std::vector<char*>& arguments, int out, int err, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() == parent) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execvp(arguments[0], arguments.data());
  }
  _exit(127);
}

}  // namespace

Process::Process(std::vector<std::string> arguments) {
  // The kernel ends a child when the thread that made it ends, so the thread that stays to the end makes it.
  std::promise<void> started;
  thread_ = std::thread([&] { run(std::move(arguments), [&] { started.set_value(); }); });
  started.get_future().wait();
}

void Process::run(std::vector<std::string> arguments, const std::function<void()>& started) {
  std::vector<char*> pointers;
  for (auto& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  std::array<int, 2> out{};
  std::array<int, 2> err{};
  const pid_t parent = getpid();
  if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0 || (pid_ = fork()) < 0) {
    std::abort();  // A machine without pipes or processes can test nothing.
  }
  if (pid_ == 0) {
    becomeProgram(pointers, out[1], err[1], parent);
  }
  close(out[1]);
  close(err[1]);
  started();
  std::array<pollfd, 2> descriptors{{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}}};
  std::array<char, 4096> buffer{};
  while ((descriptors[0].fd >= 0 || descriptors[1].fd >= 0) && poll(descriptors.data(), 2, -1) > 0) {
    for (auto& from : descriptors) {
      if (from.fd < 0 || from.revents == 0) {
        continue;
      }
      const auto count = read(from.fd, buffer.data(), buffer.size());
      if (count <= 0) {
        close(std::exchange(from.fd, -1));
        continue;
      }
      const std::lock_guard lock(mutex_);
      (&from == descriptors.data() ? output_ : errors_).append(buffer.data(), static_cast<std::size_t>(count));
      changed_.notify_all();
    }
  }
  // Seen but not collected until the lock is held, so that signal() never hits a stranger.
  siginfo_t information{};
  waitid(P_PID, static_cast<id_t>(pid_), &information, WEXITED | WNOWAIT);
  const std::lock_guard lock(mutex_);
  int status = 0;
  waitpid(pid_, &status, 0);
  status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  changed_.notify_all();
}

Process::~Process() {
  signal(SIGKILL);
  thread_.join();
}

void Process::signal(int number) {
  const std::lock_guard lock(mutex_);
  if (!status_) {
    kill(pid_, number);
  }
}

bool Process::waitFor(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, limit, [this] { return status_.has_value(); });
}

bool Process::waitForText(const std::string& text, std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  const auto seen = [&] { return (output_ + '\n' + errors_).find(text) != std::string::npos; };
  changed_.wait_for(lock, limit, [&] { return status_ || seen(); });
  return seen();
}

int Process::exitStatus() const {
  const std::lock_guard lock(mutex_);
  return status_.value_or(-1);
}

std::string Process::output() const {
  const std::lock_guard lock(mutex_);
  return output_;
}

std::string Process::errors() const {
  const std::lock_guard lock(mutex_);
  return errors_;
}

Outcome runProgram(std::vector<std::string> arguments, std::chrono::milliseconds limit) {
  Process process(std::move(arguments));
  const bool ended = process.waitFor(limit);
  return {process.exitStatus(), process.output(), process.errors() + (ended ? "" : "\n(killed: it took too long)")};
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
