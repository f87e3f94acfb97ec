#pragma once

#include <cstdint>

namespace zellive {

enum class ReachabilityStatus : std::int64_t {
  Unknown = -1,
  NotReachable = 0,
  ReachableViaWWAN = 1,  ///< Through a mobile link.
  ReachableViaWiFi = 2,  ///< Through Wi-Fi or Ethernet.
};

/// Whether the network can be used. Changes are posted as notification::ReachabilityDidChange. Thread-safe.
class AFNetworkReachabilityManager {
 public:
  virtual ~AFNetworkReachabilityManager() = default;
  [[nodiscard]] virtual ReachabilityStatus networkReachabilityStatus() const = 0;
  /// Sets the answer and posts the change notification on this thread when it differs from the one in force.
  virtual void setNetworkReachabilityStatus(ReachabilityStatus status) = 0;
  [[nodiscard]] bool isReachable() const {
    const auto status = networkReachabilityStatus();
    return status == ReachabilityStatus::ReachableViaWWAN || status == ReachabilityStatus::ReachableViaWiFi;
  }
};

}  // namespace zellive
