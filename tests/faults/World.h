#pragma once

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/faults/TwoMachines.h"
#include "tests/support/AlteredQueues.h"
#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"
#include "tests/support/NginxServer.h"
#include "tests/support/Relay.h"
#include "zellive/platform/linux/NetlinkReachability.h"

namespace zellive::test {

using namespace std::chrono_literals;

/// A publisher waits a tenth of the reconnect interval on them.
inline std::shared_ptr<QueueService> hurriedQueues() {
  return std::make_shared<AlteredQueues>([](const std::string& label, std::chrono::nanoseconds delay) {
    return label.ends_with("rtmpSendQueue") ? delay / 10 : delay;
  });
}

/// Knows every name, as `address`, until it knows none.
struct Names : NameService {
  HostAddresses lookUp(const std::string&, std::uint16_t port) override {
    return lost ? HostAddresses{{}, "Name or service not known"} : defaultPlatform()->names->lookUp(address, port);
  }
  std::string address = "127.0.0.1";
  std::atomic<bool> lost = false;
};

/// A real server, what stands in front of it, and the publisher's machine. `apart`: with a network between them, real
/// where this process may have one, else played by a relay.
class World {
 public:
  explicit World(bool apart) {
    for (const auto& queue : {defaultPlatform()->queues->mainQueue(), defaultPlatform()->queues->globalQueue()}) {
      Event warm;  // Whatever the shared queues keep has been made.
      queue->after(0s, [&] { warm.set(); });
      (void)warm.wait();
    }
    try {
      machines = apart ? std::make_unique<TwoMachines>() : nullptr;
    } catch (const std::runtime_error& reason) {
      std::printf("%s; a relay plays the network\n", reason.what());
    }
    atServer([&] {
      server = std::make_unique<NginxServer>();
      front = std::make_unique<Relay>(server->rtmpPort(), machines ? INADDR_ANY : INADDR_LOOPBACK);
    });
    *platform = *defaultPlatform();
    platform->queues = hurriedQueues();
    platform->notifications = std::make_shared<NotificationCenter>();
    platform->names = names;
    platform->device = std::make_shared<SettableDevice>();  // The machine's own looks for cameras, whose service stays.
    if (machines) {
      names->address = TwoMachines::serverAddress;
      atPublisher(
          [&] { platform->reachability = makeNetworkReachability(*platform->queues, platform->notifications); });
    } else {
      reachability = std::make_shared<SettableReachability>(platform->notifications);
      platform->reachability = reachability;
      way = apart ? std::make_unique<Relay>(front->port()) : nullptr;
    }
  }

  [[nodiscard]] std::string url(const std::string& stream) const {
    return "rtmp://stream.test:" + std::to_string((way ? way : front)->port()) + "/live/" + stream;
  }
  void atServer(const std::function<void()>& work) const { at(&TwoMachines::server, work); }
  /// What work does and starts belongs to that machine.
  void atPublisher(const std::function<void()>& work) const { at(&TwoMachines::publisher, work); }

  std::unique_ptr<TwoMachines> machines;  ///< Null where there is no real network.
  std::unique_ptr<NginxServer> server;
  std::unique_ptr<Relay> front;
  std::unique_ptr<Relay> way;                          ///< Null where there is a real network, or none.
  std::shared_ptr<SettableReachability> reachability;  ///< Null where there is a real network.
  const std::shared_ptr<Names> names = std::make_shared<Names>();
  const std::shared_ptr<Platform> platform = std::make_shared<Platform>();

 private:
  void at(NetworkNamespace TwoMachines::*machine, const std::function<void()>& work) const {
    std::optional<NetworkNamespace::Stay> inside;
    if (machines) {
      inside.emplace((*machines).*machine);
    }
    work();
  }
};

/// Something that is wrong until this goes.
class Fault {
 public:
  Fault(const std::function<void()>& begin, std::function<void()> end) : end_(std::move(end)) { begin(); }
  ~Fault() { end_(); }
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

 private:
  const std::function<void()> end_;
};

/// This process's threads whose names end so.
[[nodiscard]] inline int threads(std::string_view ending = "") {
  int count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    count += std::getline(std::ifstream(task.path() / "comm"), name) && name.ends_with(ending) ? 1 : 0;
  }
  return count;
}
[[nodiscard]] inline auto openFiles() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace zellive::test
