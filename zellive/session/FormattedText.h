#pragma once

#include <string>

namespace zellive {

/// printf into a string of whatever length it takes.
[[nodiscard, gnu::format(printf, 1, 2)]] std::string formattedText(const char* format, ...);

}  // namespace zellive
