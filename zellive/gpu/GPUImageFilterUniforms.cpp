// Uniforms of a filter: kept, because filters with equal shaders share a program, and applied again to each frame.
#include <GLES2/gl2.h>

#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFilter.h"

namespace zellive {
namespace {

GPUImageFilter::Vector3 pair(double first, double second) {
  return {static_cast<float>(first), static_cast<float>(second), 0};
}

}  // namespace

void GPUImageFilter::setUniformsForProgramAtIndex(std::size_t) {
  for (const auto& [uniform, block] : uniformStateRestorationBlocks_) {
    block();
  }
}

void GPUImageFilter::setAndExecuteUniformStateCallbackAtIndex(std::int32_t uniform, const std::shared_ptr<GLProgram>&,
                                                              UniformBlock block) {
  auto& kept = uniformStateRestorationBlocks_[uniform];
  kept = std::move(block);
  kept();
}

template <typename SetUniform>
void GPUImageFilter::enqueueUniform(std::int32_t uniform, const std::shared_ptr<GLProgram>& program, SetUniform set) {
  // A filter without a program has no uniforms; another's must not be set instead.
  if (!program) {
    return;
  }
  runAsynchronouslyOnVideoProcessingQueue(
      [self = std::static_pointer_cast<GPUImageFilter>(shared_from_this()), uniform, program, set = std::move(set)] {
        GPUImageContext::setActiveShaderProgram(program);
        self->setAndExecuteUniformStateCallbackAtIndex(uniform, program, [uniform, set] { set(uniform); });
      });
}

template <typename Setter>
void GPUImageFilter::enqueueNamed(const std::string& uniformName, Setter setter) {
  if (!filterProgram_) {
    return;
  }
  // The driver knows where a uniform is, and may only be asked on the queue.
  runAsynchronouslyOnVideoProcessingQueue(
      [self = std::static_pointer_cast<GPUImageFilter>(shared_from_this()), uniformName, setter = std::move(setter)] {
        GPUImageContext::useImageProcessingContext();
        setter(*self, self->filterProgram_->uniformIndex(uniformName));
      });
}

void GPUImageFilter::setInteger(std::int32_t value, const std::string& uniformName) {
  enqueueNamed(uniformName,
               [value](auto& self, auto uniform) { self.setInteger(value, uniform, self.filterProgram_); });
}

void GPUImageFilter::setFloat(float value, const std::string& uniformName) {
  enqueueNamed(uniformName, [value](auto& self, auto uniform) { self.setFloat(value, uniform, self.filterProgram_); });
}

void GPUImageFilter::setSize(Size value, const std::string& uniformName) {
  enqueueNamed(uniformName, [value](auto& self, auto uniform) { self.setSize(value, uniform, self.filterProgram_); });
}

void GPUImageFilter::setPoint(Point value, const std::string& uniformName) {
  enqueueNamed(uniformName, [value](auto& self, auto uniform) { self.setPoint(value, uniform, self.filterProgram_); });
}

void GPUImageFilter::setFloatVec3(Vector3 value, const std::string& uniformName) {
  enqueueNamed(uniformName, [value](auto& self, auto uniform) { self.setVec3(value, uniform, self.filterProgram_); });
}

void GPUImageFilter::setFloatVec4(Vector4 value, std::int32_t uniform) { setVec4(value, uniform, filterProgram_); }

void GPUImageFilter::setFloatArray(const std::vector<float>& values, std::int32_t uniform) {
  setFloatArray(values, uniform, filterProgram_);
}

void GPUImageFilter::setMatrix3f(const Matrix3& matrix, std::int32_t uniform,
                                 const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program, [matrix](GLint at) { glUniformMatrix3fv(at, 1, GL_FALSE, matrix.data()); });
}

void GPUImageFilter::setMatrix4f(const Matrix4& matrix, std::int32_t uniform,
                                 const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program, [matrix](GLint at) { glUniformMatrix4fv(at, 1, GL_FALSE, matrix.data()); });
}

void GPUImageFilter::setFloat(float value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program, [value](GLint at) { glUniform1f(at, value); });
}

void GPUImageFilter::setPoint(Point value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program, [v = pair(value.x, value.y)](GLint at) { glUniform2fv(at, 1, v.data()); });
}

void GPUImageFilter::setSize(Size value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program, [v = pair(value.width, value.height)](GLint at) { glUniform2fv(at, 1, v.data()); });
}

void GPUImageFilter::setVec3(Vector3 value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program, [value](GLint at) { glUniform3fv(at, 1, value.data()); });
}

void GPUImageFilter::setVec4(Vector4 value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program, [value](GLint at) { glUniform4fv(at, 1, value.data()); });
}

void GPUImageFilter::setFloatArray(const std::vector<float>& values, std::int32_t uniform,
                                   const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program,
                 [values](GLint at) { glUniform1fv(at, static_cast<GLsizei>(values.size()), values.data()); });
}

void GPUImageFilter::setInteger(std::int32_t value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program) {
  enqueueUniform(uniform, program, [value](GLint at) { glUniform1i(at, value); });
}

}  // namespace zellive
