#pragma once

#include <memory>

#include "zellive/gpu/GPUImageFilter.h"

namespace zellive {

/// Hands its input on unchanged: a fixed place in the capture chain for targets and for the completion block.
class ZelLiveGPUImageEmptyFilter : public GPUImageFilter {
 public:
  [[nodiscard]] static std::shared_ptr<ZelLiveGPUImageEmptyFilter> create();

 protected:
  ZelLiveGPUImageEmptyFilter() = default;
};

}  // namespace zellive
