#include "zellive/transport/HostResolver.h"

#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace zellive {
namespace {

HostAddresses lookUp(const std::string& host, std::uint16_t port, int flags) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | flags;
  addrinfo* found = nullptr;
  const int status = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (status != 0) {
    return {{}, ::gai_strerror(status)};
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owned(found, &::freeaddrinfo);
  HostAddresses result;
  for (const addrinfo* entry = found; entry != nullptr; entry = entry->ai_next) {
    HostAddress address;
    std::memcpy(&address.address, entry->ai_addr, entry->ai_addrlen);
    address.length = entry->ai_addrlen;
    result.addresses.push_back(address);
  }
  return result;
}

/// What the waiting thread and the resolving one share; the last of them frees it.
struct Request {
  Request() : done(eventfd(0, EFD_CLOEXEC)) {}
  ~Request() { ::close(done); }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  void finish(HostAddresses result) {
    const std::lock_guard lock(mutex);
    answer = std::move(result);
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(done, &one, sizeof one);
  }

  std::mutex mutex;
  HostAddresses answer;
  int done;
};

/// Starts a thread that takes none of the process's signals.
void startResolver(const std::shared_ptr<Request>& request, const std::string& host, std::uint16_t port) {
  sigset_t all;
  sigset_t former;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  try {
    std::thread([request, host, port] { request->finish(lookUp(host, port, 0)); }).detach();
  } catch (const std::system_error& error) {
    request->finish({{}, error.what()});
  }
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

}  // namespace

HostAddresses resolveHost(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit,
                          const AbortSwitch& abort) {
  if (auto numeric = lookUp(host, port, AI_NUMERICHOST); !numeric.addresses.empty()) {
    return numeric;
  }
  const auto request = std::make_shared<Request>();
  startResolver(request, host, port);
  switch (abort.wait(request->done, POLLIN, std::chrono::steady_clock::now() + limit)) {
    case AbortSwitch::Wait::Thrown:
      return {{}, "given up"};
    case AbortSwitch::Wait::Timeout:
      return {{}, "the name service does not answer"};
    case AbortSwitch::Wait::Ready:
      break;
  }
  const std::lock_guard lock(request->mutex);
  return std::move(request->answer);
}

}  // namespace zellive
