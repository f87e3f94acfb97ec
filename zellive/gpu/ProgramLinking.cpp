#include "zellive/gpu/ProgramLinking.h"

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/platform/Log.h"

namespace zellive {

bool linkOrExplain(GLProgram& program) {
  if (program.link()) {
    return true;
  }
  // Without a context nothing can be linked, which has been said.
  if (const auto context = GPUImageContext::sharedImageProcessingContext().context(); context && context->isCurrent()) {
    ZEL_LOG_ERROR("Program link log: %s", program.programLog().c_str());
    ZEL_LOG_ERROR("Fragment shader compile log: %s", program.fragmentShaderLog().c_str());
    ZEL_LOG_ERROR("Vertex shader compile log: %s", program.vertexShaderLog().c_str());
  }
  return false;
}

}  // namespace zellive
