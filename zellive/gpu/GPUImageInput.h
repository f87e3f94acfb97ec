#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "zellive/gpu/GPUImageFramebuffer.h"
#include "zellive/platform/Geometry.h"
#include "zellive/platform/MediaTime.h"

namespace zellive {

/// How a stage turns its input.
enum GPUImageInputTurn : std::int64_t {
  kGPUImageTurnNone = 0,
  kGPUImageTurnLeft = 1,
  kGPUImageTurnRight = 2,
  kGPUImageTurnFlipVertical = 3,
  kGPUImageTurnFlipHorizontal = 4,
  kGPUImageTurnRightFlipVertical = 5,
  kGPUImageTurnRightFlipHorizontal = 6,
  kGPUImageTurn180 = 7,
};

/// Whether a turn swaps width and height.
[[nodiscard]] constexpr bool turnSwapsSides(GPUImageInputTurn turn) {
  return turn == kGPUImageTurnLeft || turn == kGPUImageTurnRight || turn == kGPUImageTurnRightFlipVertical ||
         turn == kGPUImageTurnRightFlipHorizontal;
}

/// Four (x, y) or (s, t) pairs: bottom left, bottom right, top left, top right of the picture that is drawn.
using GPUImageQuad = std::array<float, 8>;

/// All of what is drawn into.
inline constexpr GPUImageQuad kWholeQuad = {-1, -1, 1, -1, -1, 1, 1, 1};
/// Where each corner of the drawn picture lies in its input; for a value that is no turn, as for none.
[[nodiscard]] const GPUImageQuad& textureCoordinatesForRotation(GPUImageInputTurn turn);

/// What receives frames. A source calls these on the video-processing queue; `index` is the input slot that the
/// receiver named when it was connected. For each frame: the framebuffer, then its size, then that it is ready.
class GPUImageInput {
 public:
  virtual ~GPUImageInput() = default;

  virtual void newFrameReadyAtTime(MediaTime frameTime, std::size_t index) = 0;
  /// The receiver locks it, and unlocks it when it has rendered. Null when the source has none at present.
  virtual void setInputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer, std::size_t index) = 0;
  /// The slot that the next source is to use.
  [[nodiscard]] virtual std::size_t nextAvailableTextureIndex() const = 0;
  /// Pixels, before the turn. A size of zero: the source is disconnected.
  virtual void setInputSize(Size size, std::size_t index) = 0;
  virtual void setInputRotation(GPUImageInputTurn turn, std::size_t index) = 0;
  /// Zero for no wish.
  [[nodiscard]] virtual Size maximumOutputSize() const = 0;
  virtual void endProcessing() = 0;
  [[nodiscard]] virtual bool shouldIgnoreUpdatesToThisTarget() const = 0;
  [[nodiscard]] virtual bool enabled() const = 0;
  [[nodiscard]] virtual bool wantsMonochromeInput() const = 0;
  virtual void setCurrentlyReceivingMonochromeInput(bool monochrome) = 0;
};

}  // namespace zellive
