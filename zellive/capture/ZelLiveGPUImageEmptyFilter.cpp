#include "zellive/capture/ZelLiveGPUImageEmptyFilter.h"

#include "zellive/capture/ShaderSources.h"
#include "zellive/gpu/ShaderSources.h"

namespace zellive {

std::shared_ptr<ZelLiveGPUImageEmptyFilter> ZelLiveGPUImageEmptyFilter::create() {
  std::shared_ptr<ZelLiveGPUImageEmptyFilter> filter(new ZelLiveGPUImageEmptyFilter);
  filter->initWithShaders(kDefaultVertexShaderString, kEmptyFragmentShaderString, Effect::Copy);
  return filter;
}

}  // namespace zellive
