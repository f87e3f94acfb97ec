#include "tests/support/Relay.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>

namespace zellive::test {
namespace {

/// More than a publisher needs to open its stream, less than a tenth of a second of it.
constexpr std::size_t kOpening = 6000;
constexpr int kBacklog = 16;
constexpr std::size_t kAtOnce = 4096;
/// How often everything is looked at.
constexpr std::chrono::milliseconds kTurn{2};

void keepSmall(const Descriptor& socket) {
  constexpr int size = 16 * 1024;
  setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

/// Moves what has come and can go, `room` bytes at most: 0 when that is nothing at present, −1 when either side has
/// gone.
ssize_t pass(const Descriptor& from, const Descriptor& to, std::size_t room) {
  std::array<char, kAtOnce> buffer{};
  auto moved = recv(from.get(), buffer.data(), std::min(room, kAtOnce), MSG_PEEK | MSG_DONTWAIT);
  if (moved > 0) {
    moved = send(to.get(), buffer.data(), static_cast<std::size_t>(moved), MSG_NOSIGNAL | MSG_DONTWAIT);
  } else if (moved == 0) {
    return -1;
  }
  if (moved < 0) {
    return errno == EAGAIN ? 0 : -1;
  }
  return recv(from.get(), buffer.data(), static_cast<std::size_t>(moved), 0);
}

}  // namespace

Relay::Relay(std::uint16_t serverPort, std::uint32_t address) : serverPort_(serverPort), address_(address) {
  setConduct(Conduct::Pass);
  thread_ = std::thread([this] { run(); });
}

Relay::~Relay() {
  setConduct(Conduct::Refuse);
  {
    const std::lock_guard lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

/// A socket on the relay's port, which is a free one at first.
Descriptor Relay::bound() {
  Descriptor descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  setsockopt(descriptor.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  keepSmall(descriptor);
  LoopbackAddress address(AF_INET, port_);
  address.four.sin_addr.s_addr = htonl(address_);
  socklen_t length = sizeof address.four;
  if (bind(descriptor.get(), &address.any, length) != 0 || getsockname(descriptor.get(), &address.any, &length) != 0) {
    throw std::runtime_error("the relay has no port");
  }
  port_ = ntohs(address.four.sin_port);
  return descriptor;
}

void Relay::setConduct(Conduct conduct) {
  const std::lock_guard lock(mutex_);
  const bool none = conduct == Conduct::Refuse || conduct == Conduct::Silent || conduct == Conduct::HangUp;
  std::erase_if(links_, [&](const Link& link) { return none || !link.client || !link.server; });
  filler_ = {};
  if (conduct == Conduct::Refuse) {
    listener_ = {};
  } else {
    listener_ = listener_ ? std::move(listener_) : bound();
    listen(listener_.get(), conduct == Conduct::Swallow ? 0 : kBacklog);
  }
  if (conduct == Conduct::Swallow) {  // With no room for a second one, the kernel drops all further requests.
    filler_ = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const LoopbackAddress address(AF_INET, port_);
    (void)connect(filler_.get(), &address.any, sizeof address.four);
  }
  for (Link& link : links_) {
    link.client = conduct == Conduct::KeepName ? Descriptor() : std::move(link.client);
  }
  conduct_ = conduct;
  changed_.notify_all();
}

void Relay::setRate(double bytesPerSecond) {
  const std::lock_guard lock(mutex_);
  rate_ = bytesPerSecond;
}

void Relay::run() {
  auto last = std::chrono::steady_clock::now();
  std::unique_lock lock(mutex_);
  while (!stop_) {
    const auto now = std::chrono::steady_clock::now();
    const double seconds = std::chrono::duration<double>(now - std::exchange(last, now)).count();
    std::erase_if(links_, [&](Link& link) { return !serve(link, seconds); });
    acceptAll();
    if (listener_) {
      changed_.wait_for(lock, kTurn);
    } else {
      changed_.wait(lock);  // Nobody can come, and nobody is there.
    }
  }
}

void Relay::acceptAll() {
  while (listener_ && conduct_ != Conduct::Swallow) {
    Link link;
    link.client = Descriptor(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!link.client) {
      return;
    }
    keepSmall(link.client);
    if (conduct_ != Conduct::Silent && conduct_ != Conduct::HangUp) {
      link.server = Descriptor(connectToLoopback(serverPort_));
      if (!link.server) {
        continue;
      }
      keepSmall(link.server);
    }
    links_.push_back(std::move(link));
  }
}

/// False when the link is at its end.
bool Relay::serve(Link& link, double seconds) const {
  // After a pause, 20 ms' worth may pass in one go.
  link.allowance = std::min(link.allowance + rate_ * seconds, std::max(rate_ * 0.02, 1.0));
  if (conduct_ == Conduct::Swallow || !link.client) {
    return true;
  }
  for (ssize_t moved = link.server ? 1 : 0; moved != 0;) {
    moved = pass(link.server, link.client, kAtOnce);
    if (moved < 0) {
      return false;
    }
  }
  pollfd client{link.client.get(), POLLRDHUP, 0};
  poll(&client, 1, 0);
  const auto end = [&](bool withReset) {  // A reset overtakes the bytes on its way that nobody takes.
    const linger now{1, 0};
    withReset ? setsockopt(link.server.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now) : 0;
    return false;
  };
  const bool reset = (client.revents & POLLERR) != 0;
  const bool unread = conduct_ == Conduct::Silent || (conduct_ == Conduct::StopReading && link.passed >= kOpening);
  for (ssize_t moved = 1; !unread && moved != 0;) {
    auto room = static_cast<std::size_t>(std::min(link.allowance, 1e9));
    if (conduct_ == Conduct::CutMessages || conduct_ == Conduct::StopReading) {
      room = std::min(room, kOpening - std::min(link.passed, kOpening));
    }
    if (room == 0) {
      return conduct_ != Conduct::CutMessages || link.passed < kOpening;
    }
    moved = pass(link.client, link.server, room);
    if (moved < 0) {
      return end(reset);
    }
    link.passed += static_cast<std::size_t>(moved);
    link.allowance -= static_cast<double>(moved);
  }
  // Whoever has gone, with bytes left that the server does not take or that nobody reads, will not be heard of again.
  return client.revents == 0 || end(reset || !unread);
}

}  // namespace zellive::test
