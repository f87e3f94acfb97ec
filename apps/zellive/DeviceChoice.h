#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zellive::tool {

/// A camera or microphone that there is.
struct DeviceName {
  std::string id;
  std::string name;
  bool isVirtual = false;
};

/// Which of `devices` is meant by `wanted`: an id, a name, or a part of exactly one name or id, in any case; empty for
/// the first that is not virtual. Nothing, with `error` for people, who are told what there is to name, where none is.
/// `kind` is "camera" or "microphone".
[[nodiscard]] std::optional<std::size_t> chooseDevice(const std::vector<DeviceName>& devices, const std::string& wanted,
                                                      const std::string& kind, std::string& error);

}  // namespace zellive::tool
