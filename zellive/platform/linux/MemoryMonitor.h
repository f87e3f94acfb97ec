#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "zellive/platform/MediaClock.h"
#include "zellive/platform/NotificationCenter.h"
#include "zellive/platform/Queue.h"
#include "zellive/platform/linux/Descriptor.h"

namespace zellive {

/// Posts notification::DidReceiveMemoryWarning on its queue when memory runs short, at most once in 30 s.
///
/// Where the kernel tells of pressure (PSI), short means that tasks stalled on memory for a tenth of a 2 s window;
/// elsewhere, that less than a twentieth of the memory is available, looked at every 5 s and told once until a twelfth
/// is available again. Ends when the last reference goes.
class MemoryMonitor : public std::enable_shared_from_this<MemoryMonitor> {
 public:
  /// Where the kernel tells about memory.
  struct Sources {
    std::string pressure = "/proc/pressure/memory";
    std::string memoryInfo = "/proc/meminfo";
  };

  /// Starts to watch. `queue` is serial.
  [[nodiscard]] static std::shared_ptr<MemoryMonitor> create(std::shared_ptr<Queue> queue,
                                                             std::shared_ptr<MediaClock> clock,
                                                             std::shared_ptr<NotificationCenter> notifications,
                                                             Sources sources);

 private:
  MemoryMonitor(std::shared_ptr<Queue> queue, std::shared_ptr<MediaClock> clock,
                std::shared_ptr<NotificationCenter> notifications, Sources sources);
  // All on queue_.
  [[nodiscard]] bool watchPressure();
  void pressureRose();
  void look();
  void warn(const char* reason);

  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<MediaClock> clock_;
  const std::shared_ptr<NotificationCenter> notifications_;
  const Sources sources_;
  bool short_ = false;
  std::optional<std::chrono::nanoseconds> lastWarning_;
  Descriptor trigger_;
  Descriptor triggerSet_;
  std::unique_ptr<ReadWatch> watch_;
};

}  // namespace zellive
