#include "zellive/gpu/GPUImageInput.h"

namespace zellive {

const GPUImageQuad& textureCoordinatesForRotation(GPUImageInputTurn turn) {
  static constexpr std::array<GPUImageQuad, 8> kCoordinates{{
      {0, 0, 1, 0, 0, 1, 1, 1},
      {1, 0, 1, 1, 0, 0, 0, 1},
      {0, 1, 0, 0, 1, 1, 1, 0},
      {0, 1, 1, 1, 0, 0, 1, 0},
      {1, 0, 0, 0, 1, 1, 0, 1},
      {0, 0, 0, 1, 1, 0, 1, 1},
      {1, 1, 1, 0, 0, 1, 0, 0},
      {1, 1, 0, 1, 1, 0, 0, 0},
  }};
  const auto row = static_cast<std::size_t>(turn);
  return kCoordinates[row < kCoordinates.size() ? row : 0];
}

}  // namespace zellive
