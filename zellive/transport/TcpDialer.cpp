#include "zellive/transport/TcpDialer.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <system_error>
#include <utility>

#include "zellive/transport/HostResolver.h"

namespace zellive {
namespace {

using Clock = std::chrono::steady_clock;

/// 0 or an error number; ECANCELED when the switch was thrown.
int connectSocket(int socket, const HostAddress& to, Clock::time_point deadline, const AbortSwitch& abort) {
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&to.address), to.length) == 0) {
    return 0;
  }
  if (errno != EINPROGRESS) {
    return errno;
  }
  switch (abort.wait(socket, POLLOUT, deadline)) {
    case AbortSwitch::Wait::Thrown:
      return ECANCELED;
    case AbortSwitch::Wait::Timeout:
      return ETIMEDOUT;
    case AbortSwitch::Wait::Ready:
      break;
  }
  int error = 0;
  socklen_t length = sizeof error;
  return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

void prepare(int socket, const RtmpOptions& options) {
  const int on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const int bytes = static_cast<int>(options.sendBufferBytes);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  setSocketTimeout(socket, SO_RCVTIMEO, options.receiveLimit);
  setSocketTimeout(socket, SO_SNDTIMEO, options.sendLimit);
}

std::string inNumbers(const HostAddress& address) {
  std::array<char, NI_MAXHOST> text{};
  return ::getnameinfo(reinterpret_cast<const sockaddr*>(&address.address), address.length, text.data(), text.size(),
                       nullptr, 0, NI_NUMERICHOST) == 0
             ? text.data()
             : "";
}

RTMPError failure(int code, const std::string& host, std::uint16_t port) {
  if (code == ECANCELED) {
    return {RtmpFailureAborted, "the connection was given up"};
  }
  return {RtmpFailureConnect,
          "cannot connect to " + host + " port " + std::to_string(port) + ": " + std::system_category().message(code)};
}

}  // namespace

void setSocketTimeout(int socket, int option, std::chrono::milliseconds limit) {
  timeval value{};
  value.tv_sec = static_cast<decltype(value.tv_sec)>(limit.count() / 1000);
  value.tv_usec = static_cast<decltype(value.tv_usec)>(limit.count() % 1000 * 1000);
  ::setsockopt(socket, SOL_SOCKET, option, &value, sizeof value);
}

DialResult dialTcp(const std::shared_ptr<NameService>& names, const std::string& host, std::uint16_t port,
                   const RtmpOptions& options, const AbortSwitch& abort) {
  DialResult result;
  const HostAddresses found = resolveHost(names, host, port, options.resolveLimit, abort);
  if (found.addresses.empty()) {
    result.error = abort.state() != AbortSwitch::State::Open
                       ? failure(ECANCELED, host, port)
                       : RTMPError{RtmpFailureResolve, "cannot find the host " + host + ": " + found.failure};
    return result;
  }
  std::ranges::transform(found.addresses, std::back_inserter(result.addresses), &inNumbers);
  const auto start = Clock::now();
  int error = 0;
  for (std::size_t index = 0; index < found.addresses.size() && error != ECANCELED; ++index) {
    const HostAddress& to = found.addresses[index];
    const int socket = ::socket(to.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (socket < 0) {
      error = errno;
      continue;
    }
    prepare(socket, options);
    const auto left = start + options.connectLimit - Clock::now();
    const auto share = left / static_cast<int>(found.addresses.size() - index);
    error = connectSocket(socket, to, Clock::now() + share, abort);
    if (error == 0) {
      ::fcntl(socket, F_SETFL, ::fcntl(socket, F_GETFL) & ~O_NONBLOCK);
      result.socket = socket;
      std::swap(result.addresses.front(), result.addresses[index]);
      result.took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
      return result;
    }
    ::close(socket);
  }
  result.error = failure(error, host, port);
  return result;
}

}  // namespace zellive
