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

/// The address that `host` spells out; none where it is a name.
HostAddresses spelledOut(const std::string& host, std::uint16_t port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV | AI_NUMERICHOST;
  addrinfo* found = nullptr;
  if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found) != 0) {
    return {};
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owned(found, &::freeaddrinfo);
  HostAddress address;
  std::memcpy(&address.address, found->ai_addr, found->ai_addrlen);
  address.length = found->ai_addrlen;
  return {{address}, {}};
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
void startResolver(const std::shared_ptr<Request>& request, const std::shared_ptr<NameService>& names,
                   const std::string& host, std::uint16_t port) {
  sigset_t all;
  sigset_t former;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  try {
    std::thread([request, names, host, port] { request->finish(names->lookUp(host, port)); }).detach();
  } catch (const std::system_error& error) {
    request->finish({{}, error.what()});
  }
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

}  // namespace

HostAddresses resolveHost(const std::shared_ptr<NameService>& names, const std::string& host, std::uint16_t port,
                          std::chrono::milliseconds limit, const AbortSwitch& abort) {
  if (auto numeric = spelledOut(host, port); !numeric.addresses.empty()) {
    return numeric;
  }
  const auto request = std::make_shared<Request>();
  startResolver(request, names, host, port);
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
