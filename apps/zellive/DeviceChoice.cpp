#include "apps/zellive/DeviceChoice.h"

#include <algorithm>
#include <cctype>

namespace zellive::tool {
namespace {

std::string lower(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char letter) { return std::tolower(letter); });
  return text;
}

bool holds(const DeviceName& device, const std::string& part) {
  return lower(device.name).find(part) != std::string::npos || lower(device.id).find(part) != std::string::npos;
}

template <typename Filter>
std::string listOf(const std::vector<DeviceName>& devices, Filter belongs) {
  std::string text;
  for (const auto& device : devices) {
    if (belongs(device)) {
      text += (text.empty() ? "\"" : ", \"") + device.name + "\"" +
              (device.id == device.name ? "" : " (" + device.id + ")");
    }
  }
  return text;
}

std::string withoutHardware(const std::vector<DeviceName>& devices, const std::string& kind) {
  std::string text = "this machine has no " + kind + " at present; name a virtual one:";
  for (const auto& device : devices) {
    text += " --" + kind + " " + device.id + ",";
  }
  return text + (devices.empty() ? "" : " or") + " --" + kind + " clip:FILE";
}

}  // namespace

std::optional<std::size_t> chooseDevice(const std::vector<DeviceName>& devices, const std::string& wanted,
                                        const std::string& kind, std::string& error) {
  const auto indexOf = [&](auto position) { return static_cast<std::size_t>(position - devices.begin()); };
  if (wanted.empty()) {
    const auto real = std::ranges::find(devices, false, &DeviceName::isVirtual);
    if (real == devices.end()) {
      error = withoutHardware(devices, kind);
      return std::nullopt;
    }
    return indexOf(real);
  }
  for (const auto field : {&DeviceName::id, &DeviceName::name}) {
    if (const auto exact = std::ranges::find(devices, wanted, field); exact != devices.end()) {
      return indexOf(exact);
    }
  }
  const auto fits = [part = lower(wanted)](const DeviceName& device) { return holds(device, part); };
  const auto count = std::ranges::count_if(devices, fits);
  if (count == 1) {
    return indexOf(std::ranges::find_if(devices, fits));
  }
  if (count > 1) {
    error = "\"" + wanted + "\" fits more than one " + kind + ": " + listOf(devices, fits);
  } else {
    const auto all = listOf(devices, [](const DeviceName&) { return true; });
    error = "there is no " + kind + " \"" + wanted + "\"; there " + (all.empty() ? "is none at all" : "are " + all) +
            ", and clip:FILE";
  }
  return std::nullopt;
}

}  // namespace zellive::tool
