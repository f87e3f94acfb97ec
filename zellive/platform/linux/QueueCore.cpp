#include "zellive/platform/linux/QueueCore.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <asio/post.hpp>
#include <csignal>
#include <system_error>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

constexpr std::size_t kThreadNameLength = 15;

thread_local const QueueCore* currentCore = nullptr;

/// Blocks, while it exists, every signal but those that tell a fault of the running code; threads inherit this.
class BlockedSignals {
 public:
  BlockedSignals() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) {
      sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_SETMASK, &blocked, &former_);
  }
  ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
  BlockedSignals(const BlockedSignals&) = delete;
  BlockedSignals& operator=(const BlockedSignals&) = delete;

 private:
  sigset_t former_;
};

}  // namespace

struct QueueCore::Delayed : DelayedWork {
  Delayed(std::weak_ptr<QueueCore> owner, DueKey at) : core(std::move(owner)), key(at) {}

  void cancel() override {
    if (const auto alive = core.lock()) {
      // The task is destroyed after the lock is released: what it owns may use the queue.
      decltype(alive->delayed_)::node_type dropped;
      const std::lock_guard lock(alive->mutex_);
      dropped = alive->delayed_.extract(key);
    }
  }

  const std::weak_ptr<QueueCore> core;
  const DueKey key;
};

struct QueueCore::Watched {
  std::uint64_t id;
  asio::posix::stream_descriptor readiness;
  Task handler;
};

struct QueueCore::Watch : ReadWatch {
  Watch(std::weak_ptr<QueueCore> owner, std::uint64_t number) : core(std::move(owner)), id(number) {}
  ~Watch() override {
    if (const auto alive = core.lock()) {
      alive->endWatch(id);
    }
  }

  const std::weak_ptr<QueueCore> core;
  const std::uint64_t id;
};

bool QueueCore::isCurrent() const { return currentCore == this; }

void QueueCore::post(Task task) {
  if (!task) {
    return;
  }
  asio::post(context_, std::move(task));
  ensureThreads();
}

void QueueCore::ensureThreads() {
  if (started_.load(std::memory_order_acquire)) {
    return;
  }
  std::string failure;
  {
    const std::lock_guard lock(mutex_);
    const BlockedSignals blocked;
    try {
      while (threads_.size() < threadCount_) {
        threads_.emplace_back([self = shared_from_this()] { self->run(); });
      }
    } catch (const std::system_error& error) {
      failure = error.what();
    }
    // Without any thread the tasks wait, and the next post tries again.
    started_.store(!threads_.empty(), std::memory_order_release);
  }
  if (!failure.empty()) {
    ZEL_LOG_ERROR("Live: queue %s cannot start its threads: %s", label_.c_str(), failure.c_str());
  }
}

void QueueCore::run() {
  currentCore = this;
  const auto tail = label_.size() - std::min(label_.size(), kThreadNameLength);
  pthread_setname_np(pthread_self(), label_.c_str() + tail);
  context_.run();
  currentCore = nullptr;
}

std::shared_ptr<DelayedWork> QueueCore::postAfter(std::chrono::nanoseconds delay, Task task) {
  const auto now = Clock::now();
  const auto longest = Clock::time_point::max() - now;
  const auto due = now + std::clamp<Clock::duration>(delay, Clock::duration::zero(), longest);
  DueKey key;
  bool first = false;
  {
    const std::lock_guard lock(mutex_);
    key = {due, nextId_++};
    if (task) {
      delayed_.emplace(key, std::move(task));
      first = delayed_.begin()->first == key;
      if (first) {
        armTimer();
      }
    }
  }
  if (first) {
    ensureThreads();
  }
  return std::make_shared<Delayed>(weak_from_this(), key);
}

/// With the lock held: has runDue() called when the first piece of delayed work falls due, and not otherwise.
void QueueCore::armTimer() {
  timer_.expires_at(delayed_.begin()->first.first);
  timer_.async_wait([this](const asio::error_code& error) {
    if (!error) {
      runDue();
    }
  });
}

void QueueCore::runDue() {
  Task task;
  {
    const std::lock_guard lock(mutex_);
    if (!delayed_.empty() && delayed_.begin()->first.first <= Clock::now()) {
      task = std::move(delayed_.extract(delayed_.begin()).mapped());
    }
    if (!delayed_.empty()) {
      armTimer();
    }
  }
  if (task) {
    task();
  }
}

std::unique_ptr<ReadWatch> QueueCore::watch(int descriptor, Task handler) {
  // A set of its own tells of the caller's descriptor. Handed to the reactor itself, the descriptor would be made
  // non-blocking; a duplicate of it would keep a connection open that its owner has closed.
  const int set = epoll_create1(EPOLL_CLOEXEC);
  if (set < 0) {
    return nullptr;
  }
  epoll_event wanted{};
  wanted.events = EPOLLIN | EPOLLRDHUP;
  auto watched = std::make_shared<Watched>(Watched{0, asio::posix::stream_descriptor(context_), std::move(handler)});
  asio::error_code failure;
  if (watched->handler && epoll_ctl(set, EPOLL_CTL_ADD, descriptor, &wanted) == 0) {
    watched->readiness.assign(set, failure);
  }
  if (!watched->readiness.is_open()) {
    ::close(set);
    return nullptr;
  }
  {
    const std::lock_guard lock(mutex_);
    watched->id = nextId_++;
    watches_.emplace(watched->id, watched);
    armWatch(watched);
  }
  ensureThreads();
  return std::make_unique<Watch>(weak_from_this(), watched->id);
}

/// With the lock held.
void QueueCore::armWatch(const std::shared_ptr<Watched>& watched) {
  watched->readiness.async_wait(asio::posix::stream_descriptor::wait_read,
                                [this, weak = std::weak_ptr(watched)](const asio::error_code& error) {
                                  if (!error) {
                                    callWatch(weak);
                                  }
                                });
}

void QueueCore::callWatch(const std::weak_ptr<Watched>& weak) {
  const auto watched = weak.lock();
  if (!watched) {
    return;
  }
  const auto isLive = [&] { return watches_.contains(watched->id); };
  {
    const std::lock_guard lock(mutex_);
    if (!isLive()) {
      return;
    }
  }
  watched->handler();
  const std::lock_guard lock(mutex_);
  if (isLive()) {
    armWatch(watched);
  }
}

void QueueCore::endWatch(std::uint64_t id) {
  decltype(watches_)::node_type dropped;
  const std::lock_guard lock(mutex_);
  dropped = watches_.extract(id);
}

void QueueCore::close() {
  decltype(delayed_) droppedWork;
  decltype(watches_) droppedWatches;
  decltype(threads_) threads;
  {
    const std::lock_guard lock(mutex_);
    droppedWork.swap(delayed_);
    droppedWatches.swap(watches_);
    timer_.cancel();
    threads.swap(threads_);
    // Behind every task that was posted before.
    asio::post(context_, [this] { context_.stop(); });
  }
  for (auto& thread : threads) {
    if (isCurrent()) {
      thread.detach();
    } else {
      thread.join();
    }
  }
}

}  // namespace zellive
