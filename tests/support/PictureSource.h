#pragma once

#include <cstdint>
#include <memory>

#include "zellive/gpu/GLProgram.h"
#include "zellive/gpu/GPUImageOutput.h"

namespace zellive::test {

/// Draws BGRA pictures into the graph.
class PictureSource : public GPUImageOutput {
 public:
  /// The turn that its targets are told to make.
  GPUImageInputTurn turn = kGPUImageTurnNone;
  /// Video-processing queue.
  void push(const PixelBuffer& picture, MediaTime time);
  /// Any thread; waits.
  void send(const PixelBuffer& picture, MediaTime time = MediaTime::make(0, 1));

 private:
  std::shared_ptr<GLProgram> program_;
  std::int32_t texture_ = -1;
};

}  // namespace zellive::test
