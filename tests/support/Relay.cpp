#include "tests/support/Relay.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>

namespace zellive::test {
namespace {

/// More than a publisher needs to open its stream, less than a tenth of a second of it.
constexpr std::size_t kOpening = 6000;
/// How often everything is looked at.
constexpr std::chrono::milliseconds kTurn{2};

void keepSmall(int socket) {
  constexpr int size = 16 * 1024;
  setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

/// With a port that it asks for by number, which stays its own while nobody listens.
LoopbackAddress addressOf(std::uint32_t address) {
  LoopbackAddress result(AF_INET, freePort());
  result.four.sin_addr.s_addr = htonl(address);
  return result;
}

bool gone(const Descriptor& socket) {
  pollfd end{socket.get(), POLLRDHUP, 0};
  return poll(&end, 1, 0) != 0;
}

/// Moves what has come and can go, `room` bytes at most: 0 when that is nothing at present, −1 when either side has
/// gone.
ssize_t pass(const Descriptor& from, const Descriptor& to, std::size_t room = SIZE_MAX) {
  std::array<char, 4096> buffer{};
  auto moved = recv(from.get(), buffer.data(), std::min(room, buffer.size()), MSG_PEEK | MSG_DONTWAIT);
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

Relay::Relay(std::uint16_t serverPort, std::uint32_t address) : serverPort_(serverPort), listener_(addressOf(address)) {
  keepSmall(listener_.descriptor());  // And so those that it accepts.
  fcntl(listener_.descriptor(), F_SETFL, O_NONBLOCK);
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

void Relay::setConduct(Conduct conduct) {
  const std::lock_guard lock(mutex_);
  const bool none = conduct == Conduct::Refuse || conduct == Conduct::Silent || conduct == Conduct::HangUp;
  std::erase_if(links_, [&](const Link& link) { return none || !link.client || !link.server; });
  for (Link& link : links_) {
    link.client = conduct == Conduct::KeepName ? Descriptor() : std::move(link.client);
  }
  if (conduct != Conduct::Refuse) {
    listen(listener_.descriptor(), 16);
  } else if (conduct_ != Conduct::Refuse) {  // Shut down twice, it would pass that on to those that it accepts later.
    shutdown(listener_.descriptor(), SHUT_RDWR);
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
    if (conduct_ == Conduct::Refuse) {
      changed_.wait(lock);  // Nobody can come, and nobody is there.
    } else {
      acceptAll();
      changed_.wait_for(lock, kTurn);
    }
  }
}

void Relay::acceptAll() {
  while (conduct_ != Conduct::Swallow) {
    Link link{Descriptor(accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC)), {}};
    if (!link.client) {
      return;
    }
    if (conduct_ != Conduct::Silent && conduct_ != Conduct::HangUp) {
      link.server = connectToLoopback(serverPort_);
      keepSmall(link.server.get());
    }
    if (link.server || conduct_ == Conduct::Silent) {
      links_.push_back(std::move(link));
    }
  }
}

/// False when the link is at its end.
bool Relay::serve(Link& link, double seconds) const {
  // After a pause, 20 ms' worth may pass in one go.
  link.allowance = std::min(link.allowance + rate_ * seconds, std::max(rate_ * 0.02, 1.0));
  if (conduct_ == Conduct::Swallow || !link.client) {
    return true;
  }
  if (conduct_ == Conduct::Silent) {
    return !gone(link.client);
  }
  ssize_t moved = 1;
  while (moved > 0) {
    moved = pass(link.server, link.client);
  }
  const bool stops = conduct_ == Conduct::CutMessages || conduct_ == Conduct::StopReading;
  while (moved >= 0) {
    auto room = static_cast<std::size_t>(std::min(link.allowance, 1e9));
    room = stops ? std::min(room, kOpening - std::min(link.passed, kOpening)) : room;
    if (room == 0) {
      return !stops || link.passed < kOpening || (conduct_ == Conduct::StopReading && !gone(link.client));
    }
    moved = pass(link.client, link.server, room);
    if (moved == 0) {
      return true;
    }
    link.passed += static_cast<std::size_t>(std::max<ssize_t>(moved, 0));
    link.allowance -= static_cast<double>(moved);
  }
  return false;
}

}  // namespace zellive::test
