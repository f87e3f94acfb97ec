#include "zellive/platform/linux/MemoryMonitor.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cstdint>
#include <fstream>
#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;

constexpr auto kLookInterval = 5s;
constexpr auto kWarningInterval = 30s;
/// Microseconds of stall in microseconds of window. Windows of whole 2 s are open to users without privileges.
constexpr char kTrigger[] = "some 200000 2000000";

struct MemoryInfo {
  std::uint64_t total = 0;  // Kibibytes, both.
  std::uint64_t available = 0;
};

std::optional<MemoryInfo> readMemoryInfo(const std::string& path) {
  std::ifstream file(path);
  MemoryInfo info;
  std::string name;
  std::uint64_t value = 0;
  std::string unit;
  bool available = false;
  while (file >> name >> value && std::getline(file, unit)) {
    if (name == "MemTotal:") {
      info.total = value;
    } else if (name == "MemAvailable:") {
      info.available = value;
      available = true;
    }
  }
  return available && info.total > 0 ? std::optional(info) : std::nullopt;
}

}  // namespace

std::shared_ptr<MemoryMonitor> MemoryMonitor::create(std::shared_ptr<Queue> queue, std::shared_ptr<MediaClock> clock,
                                                     std::shared_ptr<NotificationCenter> notifications,
                                                     Sources sources) {
  std::shared_ptr<MemoryMonitor> monitor(
      new MemoryMonitor(std::move(queue), std::move(clock), std::move(notifications), std::move(sources)));
  monitor->queue_->async([weak = std::weak_ptr(monitor)] {
    const auto self = weak.lock();
    if (self && !self->watchPressure()) {
      self->look();
    }
  });
  return monitor;
}

MemoryMonitor::MemoryMonitor(std::shared_ptr<Queue> queue, std::shared_ptr<MediaClock> clock,
                             std::shared_ptr<NotificationCenter> notifications, Sources sources)
    : queue_(std::move(queue)),
      clock_(std::move(clock)),
      notifications_(std::move(notifications)),
      sources_(std::move(sources)) {}

bool MemoryMonitor::watchPressure() {
  Descriptor trigger(::open(sources_.pressure.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  // The terminating zero belongs to the request.
  if (!trigger || ::write(trigger.get(), kTrigger, sizeof(kTrigger)) < 0) {
    return false;
  }
  // The file can always be read; an event of it is of the exceptional kind, which a set of its own filters out.
  Descriptor set(epoll_create1(EPOLL_CLOEXEC));
  epoll_event wanted{};
  wanted.events = EPOLLPRI;
  if (!set || epoll_ctl(set.get(), EPOLL_CTL_ADD, trigger.get(), &wanted) != 0) {
    return false;
  }
  watch_ = queue_->whenReadable(set.get(), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->pressureRose();
    }
  });
  trigger_ = std::move(trigger);
  triggerSet_ = std::move(set);
  return watch_ != nullptr;
}

void MemoryMonitor::pressureRose() {
  // Being waited for has taken the event already, so finding none here is the usual case; an error stays.
  epoll_event event{};
  if (epoll_wait(triggerSet_.get(), &event, 1, 0) == 1 && (event.events & (EPOLLERR | EPOLLHUP)) != 0) {
    watch_.reset();
    look();
    return;
  }
  warn("tasks wait for memory");
}

void MemoryMonitor::look() {
  const auto info = readMemoryInfo(sources_.memoryInfo);
  if (!info) {
    ZEL_LOG_WARNING("Live: memory cannot be watched: %s tells nothing", sources_.memoryInfo.c_str());
    return;
  }
  const bool wasShort = std::exchange(short_, info->available < info->total / (short_ ? 12 : 20));
  if (short_ && !wasShort) {
    warn("little memory is available");
  }
  queue_->after(kLookInterval, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->look();
    }
  });
}

void MemoryMonitor::warn(const char* reason) {
  const auto now = clock_->now();
  if (lastWarning_ && now - *lastWarning_ < kWarningInterval) {
    return;
  }
  lastWarning_ = now;
  ZEL_LOG_WARNING("Live: memory warning: %s", reason);
  notifications_->post(notification::DidReceiveMemoryWarning);
}

}  // namespace zellive
