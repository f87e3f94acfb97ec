#include "tests/support/Relay.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "tests/support/Sockets.h"

namespace zellive::test {
namespace {

using Conduct = Relay::Conduct;

/// More than a publisher needs to open its stream, less than a tenth of a second of it.
constexpr std::size_t kOpening = 6000;
constexpr int kBacklog = 16;
constexpr std::size_t kAtOnce = 4096;
constexpr int kTurn = 5;  // Milliseconds, and the least that passes in one go is the allowance of one.

void keepSmall(int descriptor) {
  constexpr int size = 16 * 1024;
  setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

void closeBoth(int client, int server) {
  for (const int descriptor : {client, server}) {
    if (descriptor >= 0) {
      close(descriptor);
    }
  }
}

/// A reset overtakes the bytes on its way that nobody takes.
void resetNext(int descriptor) {
  const linger now{1, 0};
  setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

/// Moves what has come and can go, `room` bytes at most; −1 when either side has gone.
ssize_t pass(int from, int to, std::size_t room) {
  std::array<char, kAtOnce> buffer{};
  const auto there = recv(from, buffer.data(), room, MSG_PEEK);
  if (there <= 0) {
    return -1;
  }
  const auto taken = send(to, buffer.data(), static_cast<std::size_t>(there), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (taken < 0) {
    return errno == EAGAIN ? 0 : -1;
  }
  return recv(from, buffer.data(), static_cast<std::size_t>(taken), 0);
}

}  // namespace

Relay::Relay(std::uint16_t serverPort, std::uint32_t address)
    : serverPort_(serverPort), address_(address), wakeUp_(eventfd(0, EFD_CLOEXEC)) {
  openListener();
  thread_ = std::thread([this] { run(); });
}

Relay::~Relay() {
  setConduct(Conduct::Refuse);
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
    wake();
  }
  thread_.join();
  close(wakeUp_);
  close(reserved_);
}

/// A socket on the relay's port, which is a free one at first.
int Relay::bound() {
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  keepSmall(descriptor);
  LoopbackAddress address(AF_INET, port_);
  address.four.sin_addr.s_addr = htonl(address_);
  socklen_t length = sizeof address.four;
  if (bind(descriptor, &address.any, length) != 0 || getsockname(descriptor, &address.any, &length) != 0) {
    throw std::runtime_error("the relay has no port");
  }
  port_ = ntohs(address.four.sin_port);
  return descriptor;
}

void Relay::openListener() {
  listener_ = bound();
  listen(listener_, kBacklog);
}

/// With no room for a second one, the kernel drops every further request for a connection.
void Relay::swallowRequests() {
  listen(listener_, 0);
  filler_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const LoopbackAddress address(AF_INET, port_);
  (void)connect(filler_, &address.any, sizeof address.four);
}

void Relay::wake() {
  ++changes_;
  const std::uint64_t one = 1;
  (void)!write(wakeUp_, &one, sizeof one);
}

template <typename Which>
void Relay::drop(Which which) {
  std::erase_if(links_, [&](const Link& link) {
    const bool dropped = which(link);
    if (dropped) {
      closeBoth(link.client, link.server);
    }
    return dropped;
  });
}

void Relay::setConduct(Conduct conduct) {
  const std::lock_guard lock(mutex_);
  drop([](const Link& link) { return link.client < 0 || link.server < 0; });
  if (filler_ >= 0) {
    close(std::exchange(filler_, -1));
    listen(listener_, kBacklog);
  }
  if (listener_ < 0) {
    openListener();
  }
  switch (conduct) {
    case Conduct::Refuse:
      shutdown(listener_, SHUT_RDWR);  // While it is polled, closing alone ends nothing.
      close(std::exchange(listener_, -1));
      [[fallthrough]];
    case Conduct::Silent:
    case Conduct::HangUp:
      drop([](const Link&) { return true; });
      break;
    case Conduct::KeepName:
      for (Link& link : links_) {
        close(std::exchange(link.client, -1));
      }
      break;
    case Conduct::Swallow:
      swallowRequests();
      break;
    default:
      break;
  }
  conduct_ = conduct;
  wake();
}

void Relay::setRate(double bytesPerSecond) {
  const std::lock_guard lock(mutex_);
  rate_ = bytesPerSecond;
  wake();
}

bool Relay::mayPass(const Link& link) const {
  return link.allowance >= std::clamp(rate_ * kTurn / 1000, 1.0, static_cast<double>(kAtOnce));
}

/// The wake-up, the listener, then each link's two ends; those that are not to be looked at are −1.
std::vector<pollfd> Relay::wanted() const {
  std::vector<pollfd> all{{wakeUp_, POLLIN, 0}, {conduct_ == Conduct::Swallow ? -1 : listener_, POLLIN, 0}};
  for (const Link& link : links_) {
    const bool unread = conduct_ == Conduct::Silent || (conduct_ == Conduct::StopReading && link.passed >= kOpening);
    const bool held = conduct_ == Conduct::Swallow || link.client < 0;
    // With no room further on, only the loss of the connection is of interest.
    const short ofClient = link.stuck ? 0 : unread ? POLLRDHUP : POLLIN;
    all.push_back({held || !mayPass(link) ? -1 : link.client, ofClient, 0});
    all.push_back({held ? -1 : link.server, static_cast<short>(link.stuck ? POLLIN | POLLOUT : POLLIN), 0});
  }
  return all;
}

void Relay::run() {
  auto last = std::chrono::steady_clock::now();
  std::unique_lock lock(mutex_);
  while (!stop_) {
    const auto now = std::chrono::steady_clock::now();
    for (Link& link : links_) {
      // After a pause, 20 ms' worth may pass in one go.
      link.allowance = std::min(link.allowance + rate_ * std::chrono::duration<double>(now - last).count(),
                                std::max(rate_ * 0.02, 1.0));
    }
    last = now;
    auto polled = wanted();
    const bool waitsForAllowance = std::ranges::any_of(links_, [&](const Link& link) { return !mayPass(link); });
    const unsigned before = changes_;
    lock.unlock();
    poll(polled.data(), polled.size(), waitsForAllowance ? kTurn : -1);
    lock.lock();
    if (polled[0].revents != 0) {
      std::uint64_t count = 0;
      (void)!read(wakeUp_, &count, sizeof count);
    }
    if (changes_ != before) {
      continue;  // The links are no longer those that were looked at.
    }
    std::size_t at = 0;
    drop([&](const Link& link) {
      at += 2;
      return !serve(const_cast<Link&>(link), polled[at], polled[at + 1]);
    });
    if (polled[1].revents != 0) {
      acceptOne();
    }
  }
}

void Relay::acceptOne() {
  Link link;
  link.client = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  const bool alone = conduct_ == Conduct::Silent || conduct_ == Conduct::HangUp;
  link.server = alone ? -1 : connectToLoopback(serverPort_);
  if (link.client < 0 || (link.server < 0 && !alone)) {
    closeBoth(link.client, link.server);
    return;
  }
  keepSmall(link.client);
  if (!alone) {
    keepSmall(link.server);
  }
  links_.push_back(link);
}

/// False when the link is at its end.
bool Relay::serve(Link& link, const pollfd& client, const pollfd& server) const {
  if ((server.revents & ~POLLOUT) != 0 && pass(link.server, link.client, kAtOnce) < 0) {
    return false;
  }
  link.stuck = link.stuck && (server.revents & POLLOUT) == 0;
  if (link.stuck && client.revents != 0) {
    resetNext(link.server);
    return false;
  }
  if (client.revents == 0) {
    return true;
  }
  auto room = std::min(static_cast<std::size_t>(std::min(link.allowance, 1e9)), kAtOnce);
  const bool limited = conduct_ == Conduct::CutMessages || conduct_ == Conduct::StopReading;
  if (limited) {
    room = std::min(room, kOpening - std::min(link.passed, kOpening));
  }
  const auto moved = link.server < 0 || room == 0 ? -1 : pass(link.client, link.server, room);
  if (moved < 0) {
    if ((client.revents & POLLERR) != 0) {
      resetNext(link.server);
    }
    return false;
  }
  link.stuck = moved == 0;
  link.passed += static_cast<std::size_t>(moved);
  link.allowance -= static_cast<double>(moved);
  return conduct_ != Conduct::CutMessages || link.passed < kOpening;
}

}  // namespace zellive::test
