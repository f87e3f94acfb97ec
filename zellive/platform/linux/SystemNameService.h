#pragma once

#include <memory>

#include "zellive/platform/NameService.h"

namespace zellive {

/// The C library's resolver.
[[nodiscard]] std::shared_ptr<NameService> makeSystemNameService();

}  // namespace zellive
