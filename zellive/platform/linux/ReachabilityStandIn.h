#pragma once

#include <atomic>
#include <memory>
#include <utility>

#include "zellive/platform/NotificationCenter.h"
#include "zellive/platform/Reachability.h"

namespace zellive {

/// Does not watch the network: answers what the application has set, "reachable" at first.
class ReachabilityStandIn : public AFNetworkReachabilityManager {
 public:
  explicit ReachabilityStandIn(std::shared_ptr<NotificationCenter> notifications)
      : notifications_(std::move(notifications)) {}

  [[nodiscard]] ReachabilityStatus networkReachabilityStatus() const override { return status_; }
  void setNetworkReachabilityStatus(ReachabilityStatus status) override {
    if (status_.exchange(status) != status) {
      notifications_->post(notification::ReachabilityDidChange);
    }
  }

 private:
  const std::shared_ptr<NotificationCenter> notifications_;
  std::atomic<ReachabilityStatus> status_ = ReachabilityStatus::ReachableViaWiFi;
};

}  // namespace zellive
