#include "zellive/platform/linux/NetlinkReachability.h"

#include <chrono>
#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;

/// From the first news of a change to the look at what has become of it.
constexpr auto kSettleTime = 300ms;

std::vector<IpAddress> addressesIn(const std::string& host) {
  if (host == "localhost" || host.ends_with(".localhost")) {
    return {*IpAddress::parse("127.0.0.1")};
  }
  const auto address = IpAddress::parse(host);
  return address ? std::vector{*address} : std::vector<IpAddress>{};
}

class AlwaysReachable : public AFNetworkReachabilityManager {
 public:
  [[nodiscard]] ReachabilityStatus networkReachabilityStatus() const override {
    return ReachabilityStatus::ReachableViaWiFi;
  }
};

}  // namespace

class NetlinkReachability::Host : public HostReachability {
 public:
  explicit Host(std::shared_ptr<NetlinkReachability> service) : service_(std::move(service)) {}

  [[nodiscard]] ReachabilityStatus networkReachabilityStatus() const override { return status_; }
  [[nodiscard]] std::uint64_t changes() const override { return changes_; }

  void setHost(const std::string& host) override {
    const std::lock_guard lock(service_->mutex_);
    if (host_ == host) {
      return;
    }
    host_ = host;
    addresses_ = addressesIn(host);
    hasConnected_ = false;
    take(find());
  }

  void setAddresses(const std::vector<std::string>& addresses, bool connected) override {
    std::vector<IpAddress> known;
    for (const auto& text : addresses) {
      if (const auto address = IpAddress::parse(text)) {
        known.push_back(*address);
      }
    }
    const std::lock_guard lock(service_->mutex_);
    if (!known.empty() && (connected || wayToHost(service_->network_, known).usable())) {
      addresses_ = std::move(known);
      hasConnected_ = connected;
      take(find());
    }
  }

  /// With the service's lock held, as the rest: looks again, and tells whether anything has changed.
  bool update() {
    const NetworkWay former = way_;
    take(find());
    if (way_ == former) {
      return false;
    }
    ++changes_;
    return true;
  }

 private:
  NetworkWay find() {
    const NetworkSnapshot& network = service_->network_;
    NetworkWay way = wayToHost(network, addresses_);
    if (way.usable()) {
      hasConnected_ = false;
    } else if (hasConnected_) {
      // A connection stands for which no route is known: rules beyond those read here lead to the host.
      way = wayToHost(network, {});
      way.status = way.usable() ? way.status : ReachabilityStatus::ReachableViaWiFi;
    }
    return way;
  }

  void take(NetworkWay way) {
    way_ = std::move(way);
    status_ = way_.status;
  }

  const std::shared_ptr<NetlinkReachability> service_;
  std::optional<std::string> host_;
  std::vector<IpAddress> addresses_;
  bool hasConnected_ = false;
  NetworkWay way_;
  std::atomic<ReachabilityStatus> status_ = ReachabilityStatus::NotReachable;
  std::atomic<std::uint64_t> changes_ = 0;
};

std::shared_ptr<NetlinkReachability> NetlinkReachability::create(std::unique_ptr<NetworkSource> source,
                                                                 std::shared_ptr<Queue> queue,
                                                                 std::shared_ptr<NotificationCenter> notifications) {
  auto network = source->read();
  if (!network) {
    return nullptr;
  }
  std::shared_ptr<NetlinkReachability> service(
      new NetlinkReachability(std::move(source), std::move(queue), std::move(notifications), std::move(*network)));
  service->watch_ = service->queue_->whenReadable(service->source_->descriptor(), [weak = std::weak_ptr(service)] {
    if (const auto self = weak.lock()) {
      self->takeNews();
    }
  });
  return service;
}

NetlinkReachability::NetlinkReachability(std::unique_ptr<NetworkSource> source, std::shared_ptr<Queue> queue,
                                         std::shared_ptr<NotificationCenter> notifications, NetworkSnapshot network)
    : source_(std::move(source)),
      queue_(std::move(queue)),
      notifications_(std::move(notifications)),
      network_(std::move(network)),
      way_(wayToHost(network_, {})),
      status_(way_.status) {}

std::shared_ptr<HostReachability> NetlinkReachability::forHost(const std::string& host) {
  auto result = std::make_shared<Host>(shared_from_this());
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(hosts_, [](const auto& weak) { return weak.expired(); });
    hosts_.push_back(result);
  }
  result->setHost(host);
  return result;
}

void NetlinkReachability::takeNews() {
  if (source_->takeNews() && !settling_) {
    lookLater();
  }
}

void NetlinkReachability::lookLater() {
  settling_ = true;
  queue_->after(kSettleTime, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->look();
    }
  });
}

void NetlinkReachability::look() {
  settling_ = false;
  auto network = source_->read();
  if (!network) {
    if (!std::exchange(readFails_, true)) {
      ZEL_LOG_WARNING("Live: a change of the network cannot be read; trying again");
    }
    lookLater();
    return;
  }
  readFails_ = false;
  if (update(std::move(*network))) {
    notifications_->post(notification::ReachabilityDidChange);
  }
}

/// Whether any answer has changed.
bool NetlinkReachability::update(NetworkSnapshot network) {
  std::vector<std::shared_ptr<Host>> hosts;  // Released after the lock: the last reference to one may be here.
  const std::lock_guard lock(mutex_);
  network_ = std::move(network);
  NetworkWay way = wayToHost(network_, {});
  bool changed = way != way_;
  way_ = std::move(way);
  status_ = way_.status;
  for (const auto& weak : hosts_) {
    if (const auto host = weak.lock()) {
      changed = host->update() || changed;
      hosts.push_back(host);
    }
  }
  return changed;
}

std::shared_ptr<AFNetworkReachabilityManager> makeNetworkReachability(
    QueueService& queues, std::shared_ptr<NotificationCenter> notifications) {
  std::string failure;
  if (auto source = RouteNetlink::open(failure)) {
    if (auto service = NetlinkReachability::create(std::move(source), queues.makeSerialQueue("zellive.network"),
                                                   std::move(notifications))) {
      return service;
    }
    failure = "it does not list its links, addresses and routes";
  }
  ZEL_LOG_WARNING("Live: the kernel does not tell about the network (%s): it is taken to be reachable",
                  failure.c_str());
  return std::make_shared<AlwaysReachable>();
}

}  // namespace zellive
