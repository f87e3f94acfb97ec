#include "zellive/platform/linux/AsioQueues.h"

#include <cstddef>
#include <string>
#include <utility>

#include "zellive/platform/linux/QueueCore.h"

namespace zellive {
namespace {

class AsioQueue : public Queue {
 public:
  AsioQueue(std::string label, std::size_t threadCount)
      : core_(std::make_shared<QueueCore>(std::move(label), threadCount)) {}
  ~AsioQueue() override { core_->close(); }
  AsioQueue(const AsioQueue&) = delete;
  AsioQueue& operator=(const AsioQueue&) = delete;

  void async(Task task) override { core_->post(std::move(task)); }
  std::shared_ptr<DelayedWork> after(std::chrono::nanoseconds delay, Task task) override {
    return core_->postAfter(delay, std::move(task));
  }
  std::unique_ptr<ReadWatch> whenReadable(int descriptor, Task handler) override {
    return core_->watch(descriptor, std::move(handler));
  }
  [[nodiscard]] bool isCurrent() const override { return core_->isCurrent(); }
  [[nodiscard]] const std::string& label() const override { return core_->label(); }

 private:
  const std::shared_ptr<QueueCore> core_;
};

/// Tasks of the global queue are few and short, but some of them wait for something.
constexpr std::size_t kPoolSize = 4;

class AsioQueues : public QueueService {
 public:
  std::shared_ptr<Queue> makeSerialQueue(std::string label) override {
    return std::make_shared<AsioQueue>(std::move(label), 1);
  }
  std::shared_ptr<Queue> mainQueue() override { return main_; }
  std::shared_ptr<Queue> globalQueue() override { return global_; }

 private:
  const std::shared_ptr<Queue> main_ = std::make_shared<AsioQueue>("zellive.main", 1);
  const std::shared_ptr<Queue> global_ = std::make_shared<AsioQueue>("zellive.global", kPoolSize);
};

}  // namespace

std::shared_ptr<QueueService> makeAsioQueues() { return std::make_shared<AsioQueues>(); }

}  // namespace zellive
