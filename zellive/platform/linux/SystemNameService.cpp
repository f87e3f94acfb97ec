#include "zellive/platform/linux/SystemNameService.h"

#include <netdb.h>

#include <cstring>
#include <memory>

namespace zellive {
namespace {

class SystemNameService : public NameService {
 public:
  HostAddresses lookUp(const std::string& host, std::uint16_t port) override {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
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
};

}  // namespace

std::shared_ptr<NameService> makeSystemNameService() { return std::make_shared<SystemNameService>(); }

}  // namespace zellive
