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

#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"
#include "tests/support/NetworkNamespace.h"
#include "tests/support/NginxServer.h"
#include "tests/support/Relay.h"
#include "zellive/platform/linux/NetlinkReachability.h"

namespace zellive::test {

using namespace std::chrono_literals;

/// Real queues on which a publisher waits a tenth of the reconnect interval.
struct HurriedQueues : QueueService {
  struct Hurried : Queue {
    explicit Hurried(std::shared_ptr<Queue> queue) : real(std::move(queue)) {}
    void async(Task task) override { real->async(std::move(task)); }
    std::shared_ptr<DelayedWork> after(std::chrono::nanoseconds delay, Task task) override {
      return real->after(delay / 10, std::move(task));
    }
    std::unique_ptr<ReadWatch> whenReadable(int descriptor, Task handler) override {
      return real->whenReadable(descriptor, std::move(handler));
    }
    [[nodiscard]] bool isCurrent() const override { return real->isCurrent(); }
    [[nodiscard]] const std::string& label() const override { return real->label(); }
    const std::shared_ptr<Queue> real;
  };
  std::shared_ptr<Queue> makeSerialQueue(std::string label) override {
    auto queue = real->makeSerialQueue(std::move(label));
    return queue->label().ends_with("rtmpSendQueue") ? std::make_shared<Hurried>(std::move(queue)) : queue;
  }
  std::shared_ptr<Queue> mainQueue() override { return real->mainQueue(); }
  std::shared_ptr<Queue> globalQueue() override { return real->globalQueue(); }
  const std::shared_ptr<QueueService> real = defaultPlatform()->queues;
};

/// Knows every name, as `address`, until it knows none.
struct Names : NameService {
  HostAddresses lookUp(const std::string&, std::uint16_t port) override {
    return lost ? HostAddresses{{}, "Name or service not known"} : defaultPlatform()->names->lookUp(address, port);
  }
  std::string address = "127.0.0.1";
  std::atomic<bool> lost = false;
};

/// A server's machine and a publisher's, with two cables between them: wired0 at the publisher leads to near0, wwan0 to
/// near1. The server's address is beyond both.
struct TwoMachines {
  static constexpr const char* serverAddress = "203.0.113.7";
  TwoMachines() {
    server.run(
        "ip link add near0 type veth peer name wired0; ip link add near1 type veth peer name wwan0;"
        "ip addr add 203.0.113.7/32 dev lo; ip addr add 192.0.2.1/24 dev near0; ip addr add 198.51.100.1/24 dev near1;"
        "ip link set near0 up; ip link set near1 up;"
        "ip link set wired0 netns " +
        publisher.path() + "; ip link set wwan0 netns " + publisher.path());
    publisher.run(
        "ip addr add 192.0.2.5/24 dev wired0; ip addr add 198.51.100.5/24 dev wwan0;"
        "ip link set wired0 up; ip link set wwan0 up; ip route add default via 192.0.2.1");
  }
  NetworkNamespace server;
  NetworkNamespace publisher;
};

/// A real server, what stands in front of it, and the publisher's machine. `apart`: with a network between them, real
/// where this process may have one, else played by a relay.
struct World {
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
    at(&TwoMachines::server, [&] {
      server = std::make_unique<NginxServer>();
      front = std::make_unique<Relay>(server->rtmpPort(), machines ? INADDR_ANY : INADDR_LOOPBACK);
    });
    *platform = *defaultPlatform();
    platform->queues = std::make_shared<HurriedQueues>();
    platform->notifications = std::make_shared<NotificationCenter>();
    platform->names = names;
    platform->device = std::make_shared<SettableDevice>();  // The machine's own looks for cameras, whose service stays.
    if (machines) {
      names->address = TwoMachines::serverAddress;
      at(&TwoMachines::publisher,
         [&] { platform->reachability = makeNetworkReachability(*platform->queues, platform->notifications); });
    } else {
      platform->reachability = reachability = std::make_shared<SettableReachability>(platform->notifications);
      way = apart ? std::make_unique<Relay>(front->port()) : nullptr;
    }
  }

  [[nodiscard]] std::string url(const std::string& stream) const {
    return "rtmp://stream.test:" + std::to_string((way ? way : front)->port()) + "/live/" + stream;
  }
  /// What work does and starts belongs to that machine.
  void at(NetworkNamespace TwoMachines::*machine, const std::function<void()>& work) const {
    std::optional<NetworkNamespace::Stay> inside;
    if (machines) {
      inside.emplace((*machines).*machine);
    }
    work();
  }

  std::unique_ptr<TwoMachines> machines;  ///< Null where there is no real network.
  std::unique_ptr<NginxServer> server;
  std::unique_ptr<Relay> front;
  std::unique_ptr<Relay> way;                          ///< Null where there is a real network, or none.
  std::shared_ptr<SettableReachability> reachability;  ///< Null where there is a real network.
  const std::shared_ptr<Names> names = std::make_shared<Names>();
  const std::shared_ptr<Platform> platform = std::make_shared<Platform>();
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
