#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zellive/platform/NotificationCenter.h"
#include "zellive/platform/Queue.h"
#include "zellive/platform/Reachability.h"
#include "zellive/platform/linux/RouteNetlink.h"

namespace zellive {

/// Watches the network and answers for it and for single hosts. News is let settle for a moment, so that what belongs
/// together (a link, its addresses, its routes) is one change; then the network is read anew and compared.
///
/// The first answers are there when create() returns. Destroying it at any moment is safe; objects that forHost() made
/// keep it alive.
class NetlinkReachability : public AFNetworkReachabilityManager,
                            public std::enable_shared_from_this<NetlinkReachability> {
 public:
  /// `queue` is serial, and of this object alone: notifications are posted on it. Null when `source` cannot be read.
  [[nodiscard]] static std::shared_ptr<NetlinkReachability> create(std::unique_ptr<NetworkSource> source,
                                                                   std::shared_ptr<Queue> queue,
                                                                   std::shared_ptr<NotificationCenter> notifications);

  [[nodiscard]] ReachabilityStatus networkReachabilityStatus() const override { return status_; }
  [[nodiscard]] std::shared_ptr<HostReachability> forHost(const std::string& host) override;

  /// The source has news. On the queue.
  void takeNews();

 private:
  class Host;

  NetlinkReachability(std::unique_ptr<NetworkSource> source, std::shared_ptr<Queue> queue,
                      std::shared_ptr<NotificationCenter> notifications, NetworkSnapshot network);
  void lookLater();
  void look();
  bool update(NetworkSnapshot network);

  const std::unique_ptr<NetworkSource> source_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<NotificationCenter> notifications_;
  std::unique_ptr<ReadWatch> watch_;

  // Of the queue alone.
  bool settling_ = false;
  bool readFails_ = false;

  std::mutex mutex_;  // Guards what follows, and what the hosts hold.
  NetworkSnapshot network_;
  NetworkWay way_;
  std::atomic<ReachabilityStatus> status_;
  std::vector<std::weak_ptr<Host>> hosts_;
};

/// The service of this machine. Where the kernel does not tell about the network, the network counts as reachable.
[[nodiscard]] std::shared_ptr<AFNetworkReachabilityManager> makeNetworkReachability(
    QueueService& queues, std::shared_ptr<NotificationCenter> notifications);

}  // namespace zellive
