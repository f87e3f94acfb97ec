#include "zellive/platform/Data.h"

#include <vector>

namespace zellive {

Data Data::copyOf(std::span<const std::uint8_t> bytes) {
  auto owner = std::make_shared<const std::vector<std::uint8_t>>(bytes.begin(), bytes.end());
  const std::span<const std::uint8_t> view(*owner);
  return Data(std::move(owner), view);
}

}  // namespace zellive
