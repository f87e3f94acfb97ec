#include "zellive/platform/Bundle.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace zellive {

std::optional<std::string> mainBundleResource(std::string_view name, std::string_view extension) {
  std::error_code error;
  const auto folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  const std::string file = std::string(name).append(".").append(extension);
  for (const auto& path : {folder / "Resources" / file, folder / file}) {
    if (std::ifstream stream(path, std::ios::binary); stream) {
      return std::string(std::istreambuf_iterator<char>(stream), {});
    }
  }
  return std::nullopt;
}

}  // namespace zellive
