#include "zellive/platform/ManualTime.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

namespace zellive {

struct ManualTime::State {
  struct Work {
    std::weak_ptr<ManualQueue> queue;
    std::shared_ptr<ManualQueue> keepAlive;  // Of posted tasks, which run even when their queue's last owner has gone.
    Task task;
  };
  using Key = std::pair<std::chrono::nanoseconds, std::uint64_t>;

  std::mutex mutex;
  std::chrono::nanoseconds now = std::chrono::hours(1);
  std::uint64_t sequence = 0;
  std::map<Key, Work> work;
  const ManualQueue* current = nullptr;
  std::vector<std::weak_ptr<ManualQueue>> queues;
  Task readable;
};

class ManualTime::ManualQueue : public Queue, public std::enable_shared_from_this<ManualQueue> {
 public:
  ManualQueue(std::shared_ptr<State> state, std::string label) : state_(std::move(state)), label_(std::move(label)) {}

  void async(Task task) override {
    add(std::chrono::nanoseconds(0), {weak_from_this(), shared_from_this(), std::move(task)});
  }
  std::shared_ptr<DelayedWork> after(std::chrono::nanoseconds delay, Task task) override {
    const auto key = add(std::max(delay, std::chrono::nanoseconds(0)), {weak_from_this(), nullptr, std::move(task)});
    return std::make_shared<Handle>(state_, key);
  }
  std::unique_ptr<ReadWatch> whenReadable(int, Task handler) override {
    state_->readable = std::move(handler);
    return std::make_unique<ReadWatch>();
  }
  [[nodiscard]] bool isCurrent() const override {
    const std::lock_guard lock(state_->mutex);
    return state_->current == this;
  }
  [[nodiscard]] const std::string& label() const override { return label_; }

 private:
  struct Handle : DelayedWork {
    Handle(std::shared_ptr<State> s, State::Key k) : state(std::move(s)), key(k) {}
    void cancel() override {
      decltype(state->work)::node_type dropped;  // Outside the lock: what the work holds may post or cancel.
      const std::lock_guard lock(state->mutex);
      dropped = state->work.extract(key);
    }
    const std::shared_ptr<State> state;
    const State::Key key;
  };

  State::Key add(std::chrono::nanoseconds delay, State::Work work) {
    const std::lock_guard lock(state_->mutex);
    return state_->work.emplace(State::Key{state_->now + delay, state_->sequence++}, std::move(work)).first->first;
  }

  const std::shared_ptr<State> state_;
  const std::string label_;
};

ManualTime::ManualTime()
    : state_(std::make_shared<State>()),
      main_(ManualTime::makeSerialQueue("main")),
      global_(ManualTime::makeSerialQueue("global")) {}

ManualTime::~ManualTime() { dropWork(); }

void ManualTime::dropWork() {
  const auto takeAll = [this] {
    const std::lock_guard lock(state_->mutex);
    return std::exchange(state_->work, {});
  };
  while (!takeAll().empty()) {
  }
}

std::shared_ptr<Queue> ManualTime::makeSerialQueue(std::string label) {
  auto queue = std::make_shared<ManualQueue>(state_, std::move(label));
  const std::lock_guard lock(state_->mutex);
  state_->queues.push_back(queue);
  return queue;
}

void ManualTime::tellReadable() { state_->readable(); }

std::chrono::nanoseconds ManualTime::now() const {
  const std::lock_guard lock(state_->mutex);
  return state_->now;
}

bool ManualTime::runNext(std::chrono::nanoseconds end) {
  State::Work work;
  std::shared_ptr<ManualQueue> queue;
  {
    const std::lock_guard lock(state_->mutex);
    const auto next = state_->work.begin();
    if (next == state_->work.end() || next->first.first > end) {
      state_->now = end;
      return false;
    }
    state_->now = std::max(state_->now, next->first.first);
    work = std::move(state_->work.extract(next).mapped());
    queue = work.queue.lock();
    state_->current = queue.get();
  }
  if (queue) {
    std::exchange(work.task, nullptr)();
    const std::lock_guard lock(state_->mutex);
    state_->current = nullptr;
  }
  return true;
}

void ManualTime::advance(std::chrono::nanoseconds duration) {
  const auto end = now() + duration;
  while (runNext(end)) {
  }
}

std::size_t ManualTime::delayedWork() const {
  const std::lock_guard lock(state_->mutex);
  return static_cast<std::size_t>(std::ranges::count_if(state_->work, [](const auto& entry) {
    return entry.second.keepAlive == nullptr && !entry.second.queue.expired();
  }));
}

std::vector<std::string> ManualTime::liveQueues() const {
  const std::lock_guard lock(state_->mutex);
  std::vector<std::string> labels;
  for (const auto& each : state_->queues) {
    if (const auto queue = each.lock()) {
      labels.push_back(queue->label());
    }
  }
  return labels;
}

}  // namespace zellive
