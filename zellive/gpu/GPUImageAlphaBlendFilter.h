#pragma once

#include <atomic>
#include <memory>

#include "zellive/gpu/GPUImageTwoInputFilter.h"

namespace zellive {

/// Lays the second input over the first, weighted by its own alpha times `mix`; the first input's alpha stays.
class GPUImageAlphaBlendFilter : public GPUImageTwoInputFilter {
 public:
  [[nodiscard]] static std::shared_ptr<GPUImageAlphaBlendFilter> create();

  /// 0…1; 0.5 at first. Counts for frames that begin later.
  [[nodiscard]] double mix() const { return mix_; }
  void setMix(double mix);

 protected:
  GPUImageAlphaBlendFilter() = default;

 private:
  std::int32_t mixUniform_ = -1;  // Constant once made.
  std::atomic<double> mix_ = 0.5;
};

}  // namespace zellive
