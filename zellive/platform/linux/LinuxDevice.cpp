#include "zellive/platform/linux/LinuxDevice.h"

#include <unistd.h>

namespace zellive {

std::uint64_t LinuxDevice::physicalMemory() const {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGE_SIZE);
  return pages > 0 && pageSize > 0 ? static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize) : 0;
}

Size LinuxDevice::screenBounds() const {
  const std::lock_guard lock(mutex_);
  return screen_;
}

void LinuxDevice::setScreenBounds(Size points) {
  const std::lock_guard lock(mutex_);
  screen_ = points;
}

bool LinuxDevice::cameraSupportsPreset(std::string_view) const { return true; }

}  // namespace zellive
