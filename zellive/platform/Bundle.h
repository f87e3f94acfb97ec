#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zellive {

/// The bytes of `name`.`extension` in the application's own resources: the folder "Resources" beside its executable, or
/// the executable's folder. Nothing when it is in neither.
[[nodiscard]] std::optional<std::string> mainBundleResource(std::string_view name, std::string_view extension);

}  // namespace zellive
