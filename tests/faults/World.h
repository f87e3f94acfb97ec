#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"
#include "tests/support/NginxServer.h"
#include "tests/support/Relay.h"
#include "zellive/platform/linux/AsioQueues.h"

namespace zellive::test {

using namespace std::chrono_literals;

/// Real queues, on which a publisher waits a tenth of the reconnect interval.
class HurriedQueues : public QueueService {
 public:
  std::shared_ptr<Queue> makeSerialQueue(std::string label) override {
    const bool sending = label.ends_with("rtmpSendQueue");
    auto queue = real_->makeSerialQueue(std::move(label));
    return sending ? std::make_shared<Hurried>(std::move(queue)) : queue;
  }
  std::shared_ptr<Queue> mainQueue() override { return real_->mainQueue(); }
  std::shared_ptr<Queue> globalQueue() override { return real_->globalQueue(); }

 private:
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
  const std::shared_ptr<QueueService> real_ = defaultPlatform()->queues;
};

/// Knows every name, as this machine's, until it knows none.
struct Names : NameService {
  HostAddresses lookUp(const std::string&, std::uint16_t port) override {
    return lost ? HostAddresses{{}, "Name or service not known"} : defaultPlatform()->names->lookUp("127.0.0.1", port);
  }
  std::atomic<bool> lost = false;
};

/// A real server, what stands in front of it, the way there, and the machine at this end of it.
struct World {
  World() {
    for (const auto& queue : {defaultPlatform()->queues->mainQueue(), defaultPlatform()->queues->globalQueue()}) {
      Event warm;  // Whatever the shared queues keep has been made.
      queue->after(0s, [&] { warm.set(); });
      (void)warm.wait();
    }
  }
  /// `longWay`: through the relay that plays the network.
  [[nodiscard]] std::string url(const std::string& stream, bool longWay) const {
    return "rtmp://stream.test:" + std::to_string(longWay ? way.port() : front.port()) + "/live/" + stream;
  }
  [[nodiscard]] std::shared_ptr<const Platform> platform() const {
    auto set = std::make_shared<Platform>(*defaultPlatform());
    set->queues = std::make_shared<HurriedQueues>();
    set->notifications = notifications;
    set->reachability = reachability;
    set->names = names;
    return set;
  }

  NginxServer server;
  Relay front{server.rtmpPort()};
  Relay way{front.port()};
  const std::shared_ptr<Names> names = std::make_shared<Names>();
  const std::shared_ptr<NotificationCenter> notifications = std::make_shared<NotificationCenter>();
  const std::shared_ptr<SettableReachability> reachability = std::make_shared<SettableReachability>(notifications);
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
