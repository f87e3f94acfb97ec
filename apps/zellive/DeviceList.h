#pragma once

#include <string>

#include "zellive/platform/Platform.h"

namespace zellive::tool {

/// What `zellive devices` prints: cameras, microphones and encoders of `platform`, as lines for people or as one JSON
/// object. Sets `remark` to one line when the machine lacks the service that carries real devices. Takes the library's
/// messages over for as long as it lasts.
[[nodiscard]] std::string deviceList(const Platform& platform, bool json, std::string& remark);

}  // namespace zellive::tool
