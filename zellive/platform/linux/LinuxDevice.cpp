#include "zellive/platform/linux/LinuxDevice.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "zellive/platform/linux/CameraFormats.h"

namespace zellive {

std::uint64_t LinuxDevice::physicalMemory() const {
  const long pages = sysconf(_SC_PHYS_PAGES);
  const long pageSize = sysconf(_SC_PAGE_SIZE);
  return pages > 0 && pageSize > 0 ? static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize) : 0;
}

std::int64_t LinuxDevice::residentMemory() const {
  // Sizes in pages: the whole, then what is in memory.
  std::ifstream file("/proc/self/statm");
  std::int64_t whole = 0;
  std::int64_t resident = 0;
  if (!(file >> whole >> resident)) {
    return errno != 0 ? -errno : -EIO;
  }
  return resident * sysconf(_SC_PAGE_SIZE);
}

Size LinuxDevice::screenBounds() const {
  const std::lock_guard lock(mutex_);
  return screen_;
}

void LinuxDevice::setScreenBounds(Size points) {
  const std::lock_guard lock(mutex_);
  screen_ = points;
}

bool LinuxDevice::cameraSupportsPreset(std::string_view preset) const {
  const auto size = sizeOfPreset(preset);
  for (const auto& camera : cameras_->devices()) {
    if (camera->position() == CaptureDevicePositionFront) {
      const auto formats = camera->formats();
      return formats.empty() ||
             (size && std::any_of(formats.begin(), formats.end(), [&](const CaptureDeviceFormat& format) {
                return format.width == size->width && format.height == size->height;
              }));
    }
  }
  return true;
}

}  // namespace zellive
