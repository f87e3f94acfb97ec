#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "zellive/platform/Platform.h"

namespace zellive::test {

/// Real queues whose delays a test alters, by the queue's label.
class AlteredQueues : public QueueService {
 public:
  using Alteration = std::function<std::chrono::nanoseconds(const std::string& label, std::chrono::nanoseconds delay)>;
  explicit AlteredQueues(Alteration alteration) : alteration_(std::move(alteration)) {}
  std::shared_ptr<Queue> makeSerialQueue(std::string label) override {
    return altered(defaultPlatform()->queues->makeSerialQueue(std::move(label)));
  }
  std::shared_ptr<Queue> mainQueue() override { return main_; }
  std::shared_ptr<Queue> globalQueue() override { return global_; }

 private:
  struct Altered : Queue {
    Altered(std::shared_ptr<Queue> queue, Alteration delays) : real(std::move(queue)), alteration(std::move(delays)) {}
    void async(Task task) override { real->async(std::move(task)); }
    std::shared_ptr<DelayedWork> after(std::chrono::nanoseconds delay, Task task) override {
      return real->after(alteration(label(), delay), std::move(task));
    }
    std::unique_ptr<ReadWatch> whenReadable(int descriptor, Task handler) override {
      return real->whenReadable(descriptor, std::move(handler));
    }
    [[nodiscard]] bool isCurrent() const override { return real->isCurrent(); }
    [[nodiscard]] const std::string& label() const override { return real->label(); }
    const std::shared_ptr<Queue> real;
    const Alteration alteration;
  };
  [[nodiscard]] std::shared_ptr<Queue> altered(std::shared_ptr<Queue> queue) const {
    return std::make_shared<Altered>(std::move(queue), alteration_);
  }

  const Alteration alteration_;
  const std::shared_ptr<Queue> main_ = altered(defaultPlatform()->queues->mainQueue());
  const std::shared_ptr<Queue> global_ = altered(defaultPlatform()->queues->globalQueue());
};

}  // namespace zellive::test
