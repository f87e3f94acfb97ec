#include "tests/support/ThrottledRelay.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>

namespace zellive::test {
namespace {

constexpr int socketBuffer = 16 * 1024;
constexpr int tickMilliseconds = 5;
/// What may pass in one go after a pause, in seconds' worth.
constexpr double burst = 0.02;

void keepSmall(int descriptor) {
  setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &socketBuffer, sizeof socketBuffer);
  setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &socketBuffer, sizeof socketBuffer);
}

bool sendAll(int descriptor, const char* bytes, std::size_t count) {
  while (count > 0) {
    const auto sent = send(descriptor, bytes, count, MSG_NOSIGNAL);
    if (sent <= 0) {
      return false;
    }
    bytes += sent;
    count -= static_cast<std::size_t>(sent);
  }
  return true;
}

}  // namespace

ThrottledRelay::ThrottledRelay(std::uint16_t serverPort) : serverPort_(serverPort) {
  keepSmall(listener_.descriptor());
  thread_ = std::thread([this] { run(); });
}

ThrottledRelay::~ThrottledRelay() {
  stop_ = true;
  thread_.join();
}

void ThrottledRelay::run() {
  while (!stop_) {
    pollfd waiting{listener_.descriptor(), POLLIN, 0};
    if (poll(&waiting, 1, 50) <= 0) {
      continue;
    }
    const int client = accept(listener_.descriptor(), nullptr, nullptr);
    const int server = connectToLoopback(serverPort_);
    if (client >= 0 && server >= 0) {
      keepSmall(client);
      keepSmall(server);
      relay(client, server);
    }
    close(client);
    close(server);
  }
}

void ThrottledRelay::relay(int client, int server) {
  std::array<char, 4096> buffer{};
  double allowance = 0;
  auto last = std::chrono::steady_clock::now();
  cut_ = false;
  while (!stop_ && !cut_) {
    const auto now = std::chrono::steady_clock::now();
    const double rate = rate_;
    allowance = std::min(allowance + rate * std::chrono::duration<double>(now - last).count(),
                         std::max(rate * burst, rate > 0 ? 1.0 : 0.0));
    last = now;
    // A descriptor of -1 is passed over: while nothing is allowed through, the sender's bytes stay where they are.
    std::array<pollfd, 2> descriptors{{{allowance >= 1 ? client : -1, POLLIN, 0}, {server, POLLIN, 0}}};
    if (poll(descriptors.data(), descriptors.size(), tickMilliseconds) < 0) {
      return;
    }
    if (descriptors[0].revents != 0) {
      const auto room = std::min<double>(static_cast<double>(buffer.size()), allowance);
      const auto count = recv(client, buffer.data(), static_cast<std::size_t>(room), 0);
      if (count <= 0 || !sendAll(server, buffer.data(), static_cast<std::size_t>(count))) {
        return;
      }
      allowance -= static_cast<double>(count);
    }
    if (descriptors[1].revents != 0) {
      const auto count = recv(server, buffer.data(), buffer.size(), 0);
      if (count <= 0 || !sendAll(client, buffer.data(), static_cast<std::size_t>(count))) {
        return;
      }
    }
  }
}

}  // namespace zellive::test
