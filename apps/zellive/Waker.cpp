#include "apps/zellive/Waker.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace zellive::tool {
namespace {

sigset_t ownSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGTSTP);
  sigaddset(&set, SIGCONT);
  return set;
}

}  // namespace

Waker::Waker() {
  const sigset_t set = ownSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  holdsSignals_ = true;
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  signalFd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (wakeFd_ < 0 || signalFd_ < 0) {
    throw std::system_error(errno, std::generic_category(), "cannot wait for events");
  }
}

Waker::~Waker() {
  releaseSignals();
  close(signalFd_);
  close(wakeFd_);
}

Waker::Duration Waker::now() { return std::chrono::steady_clock::now().time_since_epoch(); }

void Waker::wake() {
  const std::uint64_t one = 1;
  (void)!write(wakeFd_, &one, sizeof one);
}

void Waker::sleepUntil(Duration time) {
  const auto left = std::max(time - now(), Duration{});
  const timespec limit{static_cast<time_t>(left.count() / 1'000'000'000),
                       static_cast<long>(left.count() % 1'000'000'000)};
  std::array<pollfd, 2> descriptors{{{wakeFd_, POLLIN, 0}, {signalFd_, POLLIN, 0}}};
  if (ppoll(descriptors.data(), descriptors.size(), &limit, nullptr) <= 0) {
    return;
  }
  if ((descriptors[0].revents & POLLIN) != 0) {
    std::uint64_t count = 0;
    (void)!read(wakeFd_, &count, sizeof count);
  }
  if ((descriptors[1].revents & POLLIN) != 0) {
    takeSignals();
  }
}

void Waker::takeSignals() {
  signalfd_siginfo information{};
  while (read(signalFd_, &information, sizeof information) > 0) {
    if (information.ssi_signo == SIGTSTP) {
      suspension_ = Suspension::Toggle;
    } else if (information.ssi_signo == SIGCONT) {
      suspension_ = Suspension::End;
    } else {
      endRequested_ = true;
    }
  }
}

void Waker::releaseSignals() {
  if (holdsSignals_) {
    holdsSignals_ = false;
    const sigset_t set = ownSignals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  }
}

}  // namespace zellive::tool
