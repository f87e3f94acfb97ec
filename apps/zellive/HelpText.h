#pragma once

namespace zellive::tool {

/// What `zellive --help` prints. The options themselves are declared in CommandLine.cpp.
extern const char* const helpText;

}  // namespace zellive::tool
