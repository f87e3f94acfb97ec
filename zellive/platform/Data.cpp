#include "zellive/platform/Data.h"

#include <algorithm>

namespace zellive {

Data Data::copyOf(std::span<const std::uint8_t> bytes) {
  auto memory = std::make_shared_for_overwrite<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), memory.get());
  const std::span<const std::uint8_t> view(memory.get(), bytes.size());
  return {std::move(memory), view};
}

}  // namespace zellive
