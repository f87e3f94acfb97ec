#pragma once

#include <memory>

#include "zellive/gpu/GLProgram.h"
#include "zellive/gpu/GPUImageOutput.h"

namespace zellive::test {

/// Puts pictures into the graph: BGRA as they are, '420f' and '420v' converted by BT.601.
class PictureSource : public GPUImageOutput {
 public:
  PictureSource() = default;
  /// The turn that its targets are told to make.
  GPUImageInputTurn turn = kGPUImageTurnNone;
  /// Video-processing queue.
  void push(const PixelBuffer& picture, MediaTime time);
  /// Any thread; waits.
  void send(const PixelBuffer& picture, MediaTime time = MediaTime::make(0, 1));

 private:
  struct Pass {
    std::shared_ptr<GLProgram> program;
    std::int32_t first = -1;
    std::int32_t second = -1;
    std::int32_t matrix = -1;
  };
  Pass& passFor(PixelFormat format);
  void draw(const PixelBuffer& picture);

  Pass plain_;
  Pass fullRange_;
  Pass videoRange_;
};

}  // namespace zellive::test
