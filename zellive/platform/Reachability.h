#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zellive {

enum class ReachabilityStatus : std::int64_t {
  Unknown = -1,
  NotReachable = 0,
  ReachableViaWWAN = 1,  ///< Through a mobile link.
  ReachableViaWiFi = 2,  ///< Through Wi-Fi or Ethernet, or without leaving the machine.
};

class HostReachability;

/// Whether the network can be used: whether there is a usable route beyond this machine. When the answer changes, or a
/// HostReachability's does, or the way on which it rests, notification::ReachabilityDidChange is posted: once for
/// changes that come together, on a thread of the service's own. Thread-safe.
class AFNetworkReachabilityManager {
 public:
  virtual ~AFNetworkReachabilityManager() = default;
  [[nodiscard]] virtual ReachabilityStatus networkReachabilityStatus() const = 0;
  [[nodiscard]] bool isReachable() const {
    const auto status = networkReachabilityStatus();
    return status == ReachabilityStatus::ReachableViaWWAN || status == ReachabilityStatus::ReachableViaWiFi;
  }
  /// The same for one host, a name or an address; what is returned is the caller's. Null where this object's answer
  /// holds for every host.
  [[nodiscard]] virtual std::shared_ptr<HostReachability> forHost(const std::string& /*host*/) { return nullptr; }
};

/// Whether one host can be reached: on this machine or on a connected subnet that alone counts, elsewhere the route
/// that leads there. As nobody resolves names here, a host whose addresses are not known stands for any beyond the
/// machine. What its owner tells it changes the answer without a notification.
class HostReachability : public AFNetworkReachabilityManager {
 public:
  /// Another host from now on; the same one changes nothing.
  virtual void setHost(const std::string& host) = 0;
  /// The addresses (numeric) at which the host was found. `connected`: the first of them has answered.
  virtual void setAddresses(const std::vector<std::string>& addresses, bool connected) = 0;
  /// How often the answer, or the way on which it rests, has changed. A notification is about this host if this is no
  /// longer what it was.
  [[nodiscard]] virtual std::uint64_t changes() const = 0;
};

}  // namespace zellive
