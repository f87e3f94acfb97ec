#include "tests/support/ManualPlatform.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>

namespace zellive::test {

struct ManualTime::State {
  struct Entry {
    std::weak_ptr<ManualQueue> queue;
    std::shared_ptr<ManualQueue> keepAlive;  // Posted tasks run even when their queue's last reference has gone.
    Task task;
    std::shared_ptr<bool> cancelled;
  };
  using Key = std::pair<std::chrono::nanoseconds, std::uint64_t>;

  mutable std::mutex mutex;
  std::chrono::nanoseconds now = std::chrono::hours(1);
  std::uint64_t sequence = 0;
  std::map<Key, Entry> work;
  const ManualQueue* current = nullptr;
  std::vector<const ManualQueue*> queues;
};

class ManualTime::ManualQueue : public Queue, public std::enable_shared_from_this<ManualQueue> {
 public:
  ManualQueue(std::shared_ptr<State> state, std::string label) : state_(std::move(state)), label_(std::move(label)) {
    const std::lock_guard lock(state_->mutex);
    state_->queues.push_back(this);
  }
  ~ManualQueue() override {
    const std::lock_guard lock(state_->mutex);
    std::erase(state_->queues, this);
  }

  void async(Task task) override { add(std::chrono::nanoseconds(0), std::move(task), nullptr); }

  std::shared_ptr<DelayedWork> after(std::chrono::nanoseconds delay, Task task) override {
    auto cancelled = std::make_shared<bool>(false);
    add(std::max(delay, std::chrono::nanoseconds(0)), std::move(task), cancelled);
    return std::make_shared<Handle>(state_, cancelled);
  }

  std::unique_ptr<ReadWatch> whenReadable(int, Task) override { return nullptr; }

  [[nodiscard]] bool isCurrent() const override {
    const std::lock_guard lock(state_->mutex);
    return state_->current == this;
  }
  [[nodiscard]] const std::string& label() const override { return label_; }

 private:
  struct Handle : DelayedWork {
    Handle(std::shared_ptr<State> s, std::shared_ptr<bool> c) : state(std::move(s)), cancelled(std::move(c)) {}
    void cancel() override {
      Task dropped;
      const std::lock_guard lock(state->mutex);
      *cancelled = true;
      for (auto entry = state->work.begin(); entry != state->work.end(); ++entry) {
        if (entry->second.cancelled == cancelled) {
          dropped = std::move(entry->second.task);
          state->work.erase(entry);
          break;
        }
      }
    }
    std::shared_ptr<State> state;
    std::shared_ptr<bool> cancelled;
  };

  void add(std::chrono::nanoseconds delay, Task task, std::shared_ptr<bool> cancelled) {
    auto self = shared_from_this();
    const std::lock_guard lock(state_->mutex);
    const bool delayed = cancelled != nullptr;
    state_->work.emplace(State::Key{state_->now + delay, state_->sequence++},
                         State::Entry{self, delayed ? nullptr : self, std::move(task), std::move(cancelled)});
  }

  std::shared_ptr<State> state_;
  std::string label_;
};

ManualTime::ManualTime()
    : state_(std::make_shared<State>()),
      main_(std::make_shared<ManualQueue>(state_, "main")),
      global_(std::make_shared<ManualQueue>(state_, "global")) {}

ManualTime::~ManualTime() { dropWork(); }

void ManualTime::dropWork() {
  for (;;) {
    // Dropped outside the lock: what the work holds may post or cancel.
    std::map<State::Key, State::Entry> dropped;
    const std::lock_guard lock(state_->mutex);
    if (state_->work.empty()) {
      return;
    }
    dropped.swap(state_->work);
  }
}

std::shared_ptr<Queue> ManualTime::makeSerialQueue(std::string label) {
  return std::make_shared<ManualQueue>(state_, std::move(label));
}
std::shared_ptr<Queue> ManualTime::mainQueue() { return main_; }
std::shared_ptr<Queue> ManualTime::globalQueue() { return global_; }

std::chrono::nanoseconds ManualTime::now() const {
  const std::lock_guard lock(state_->mutex);
  return state_->now;
}

Date ManualTime::date() const { return Date(std::chrono::duration_cast<Date::duration>(now())); }

bool ManualTime::runOne() {
  State::Entry entry;
  std::shared_ptr<ManualQueue> queue;
  {
    const std::lock_guard lock(state_->mutex);
    if (state_->work.empty() || state_->work.begin()->first.first > state_->now) {
      return false;
    }
    entry = std::move(state_->work.begin()->second);
    state_->work.erase(state_->work.begin());
    queue = entry.queue.lock();
    if (queue) {
      state_->current = queue.get();
    }
  }
  if (queue) {
    entry.task();
    entry.task = nullptr;
    const std::lock_guard lock(state_->mutex);
    state_->current = nullptr;
  }
  return true;
}

void ManualTime::runPending() {
  while (runOne()) {
  }
}

void ManualTime::advance(std::chrono::nanoseconds duration) {
  const auto end = now() + duration;
  for (;;) {
    runPending();
    const std::lock_guard lock(state_->mutex);
    if (state_->work.empty() || state_->work.begin()->first.first > end) {
      state_->now = end;
      return;
    }
    state_->now = std::max(state_->now, state_->work.begin()->first.first);
  }
}

std::size_t ManualTime::delayedWork() const {
  const std::lock_guard lock(state_->mutex);
  return static_cast<std::size_t>(std::count_if(state_->work.begin(), state_->work.end(), [](const auto& entry) {
    return entry.second.cancelled != nullptr && !entry.second.queue.expired();
  }));
}

std::vector<std::string> ManualTime::liveQueues() const {
  const std::lock_guard lock(state_->mutex);
  std::vector<std::string> labels;
  for (const auto* queue : state_->queues) {
    labels.push_back(queue->label());
  }
  return labels;
}

void SettableReachability::setNetworkReachabilityStatus(ReachabilityStatus status) {
  if (std::exchange(status_, status) != status) {
    notifications_->post(notification::ReachabilityDidChange);
  }
}

ManualPlatform::ManualPlatform()
    : time(std::make_shared<ManualTime>()),
      notifications(std::make_shared<NotificationCenter>()),
      device(std::make_shared<SettableDevice>()),
      reachability(std::make_shared<SettableReachability>(notifications)),
      companion(makeLoggedOutSdwan(time->globalQueue())) {}

ManualPlatform::~ManualPlatform() { time->dropWork(); }

std::shared_ptr<const Platform> ManualPlatform::platform() const {
  auto set = std::make_shared<Platform>();
  set->queues = time;
  set->clock = time;
  set->notifications = notifications;
  set->device = device;
  set->reachability = reachability;
  set->names = defaultPlatform()->names;
  set->videoCompression = videoCompression;
  set->audioConversion = audioConversion;
  set->companion = companion;
  return set;
}

struct LogCapture::Shared {
  mutable std::mutex mutex;
  std::vector<Message> messages;
};

LogCapture::LogCapture() : shared_(std::make_shared<Shared>()) {
  setLogHandler([shared = shared_](LogLevel level, std::string_view, int, std::string_view message) {
    const std::lock_guard lock(shared->mutex);
    shared->messages.push_back({level, std::string(message)});
  });
}

LogCapture::~LogCapture() { setLogHandler({}); }

std::vector<LogCapture::Message> LogCapture::messages() const {
  const std::lock_guard lock(shared_->mutex);
  return shared_->messages;
}

std::size_t LogCapture::count(std::string_view part) const {
  const auto all = messages();
  return static_cast<std::size_t>(std::count_if(
      all.begin(), all.end(), [&](const Message& message) { return message.text.find(part) != std::string::npos; }));
}

std::size_t LogCapture::count(LogLevel level, std::string_view part) const {
  const auto all = messages();
  return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const Message& message) {
    return message.level == level && message.text.find(part) != std::string::npos;
  }));
}

}  // namespace zellive::test
