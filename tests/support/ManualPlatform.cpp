#include "tests/support/ManualPlatform.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace zellive::test {

void SettableReachability::setNetworkReachabilityStatus(ReachabilityStatus status) {
  if (status_.exchange(status) != status) {
    notifications_->post(notification::ReachabilityDidChange);
  }
}

ManualPlatform::~ManualPlatform() { time->dropWork(); }

std::shared_ptr<const Platform> ManualPlatform::platform() const {
  return std::make_shared<Platform>(Platform{time, time, notifications, device, reachability, defaultPlatform()->names,
                                             videoCompression, audioConversion, graphics, cameras, audioInputs, windows,
                                             companion});
}

struct LogCapture::Shared {
  std::mutex mutex;
  std::vector<std::pair<LogLevel, std::string>> messages;
};

LogCapture::LogCapture(std::function<void()> during) : shared_(std::make_shared<Shared>()) {
  setLogHandler([shared = shared_, during](LogLevel level, std::string_view, int, std::string_view message) {
    {
      const std::lock_guard lock(shared->mutex);
      shared->messages.emplace_back(level, message);
    }
    during();
  });
}

LogCapture::~LogCapture() { setLogHandler({}); }

std::size_t LogCapture::count(LogLevel level, std::string_view part) const {
  const std::lock_guard lock(shared_->mutex);
  return static_cast<std::size_t>(std::ranges::count_if(shared_->messages, [&](const auto& message) {
    return message.first == level && message.second.find(part) != std::string::npos;
  }));
}

}  // namespace zellive::test
