#include "zellive/gpu/GPUImageAlphaBlendFilter.h"

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/ShaderSources.h"

namespace zellive {

std::shared_ptr<GPUImageAlphaBlendFilter> GPUImageAlphaBlendFilter::create() {
  std::shared_ptr<GPUImageAlphaBlendFilter> filter(new GPUImageAlphaBlendFilter);
  filter->initWithTwoInputShaders(kTwoInputVertexShaderString, kAlphaBlendFragmentShaderString);
  runSynchronouslyOnVideoProcessingQueue([&] {
    if (filter->filterProgram()) {
      GPUImageContext::useImageProcessingContext();
      filter->mixUniform_ = filter->filterProgram()->uniformIndex("mixturePercent");
    }
  });
  filter->setMix(0.5);
  return filter;
}

void GPUImageAlphaBlendFilter::setMix(double mix) {
  mix_ = mix;
  setFloat(static_cast<float>(mix), mixUniform_, filterProgram());
}

}  // namespace zellive
