#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "zellive/gpu/GLProgram.h"
#include "zellive/gpu/GPUImageOutput.h"
#include "zellive/platform/Semaphore.h"

namespace zellive {

/// Draws its input once with a shader of its own and hands the result on; the base of every filter.
///
/// Threads as for GPUImageOutput; the operations of GPUImageInput and the protected ones belong to the video-processing
/// queue. A filter whose shaders do not compile or link says why in the log and hands on frames of its background
/// colour.
///
/// A class derived from this has a static function that makes the object and then calls initWithShaders on it.
class GPUImageFilter : public GPUImageOutput, public GPUImageInput {
 public:
  using Matrix3 = std::array<float, 9>;   ///< Column by column.
  using Matrix4 = std::array<float, 16>;  ///< Column by column.
  using Vector3 = std::array<float, 3>;
  using Vector4 = std::array<float, 4>;
  using UniformBlock = std::function<void()>;

  /// Hands its input on as it is. Waits for the queue, as all that make a filter.
  [[nodiscard]] static std::shared_ptr<GPUImageFilter> create();
  /// GLSL ES. The fragment shader finds its input in "inputImageTexture", at "textureCoordinate" unless the vertex
  /// shader does otherwise; the vertex shader gets "position" and "inputTextureCoordinate".
  [[nodiscard]] static std::shared_ptr<GPUImageFilter> createWithFragmentShader(const std::string& fragmentShader);
  [[nodiscard]] static std::shared_ptr<GPUImageFilter> createWithShaders(const std::string& vertexShader,
                                                                         const std::string& fragmentShader);
  /// From NAME.fsh among the application's resources.
  [[nodiscard]] static std::shared_ptr<GPUImageFilter> createWithFragmentShaderFromFile(const std::string& name);

  /// The colour that a frame starts with, 0…1.
  void setBackgroundColorRed(float red, float green, float blue, float alpha);
  /// Renders at this size, whatever the input's; zero for the input's own.
  void forceProcessingAtSize(Size size) override;
  /// Renders at the input's shape in the largest size that fits into this one; zero for the input's own.
  void forceProcessingAtSizeRespectingAspectRatio(Size size) override;
  /// While set, nothing is rendered: the targets get frames without a picture.
  [[nodiscard]] bool preventRendering() const { return preventRendering_; }
  void setPreventRendering(bool prevent) { preventRendering_ = prevent; }

  /// Keeps the next frame for newCGImageFromCurrentlyProcessedOutput, which waits for it for at most 3 s and returns
  /// null when none came.
  void useNextFrameForImageCapture() override;
  [[nodiscard]] std::unique_ptr<Image> newCGImageFromCurrentlyProcessedOutput() override;

  /// These set a uniform of the filter's program for this filter's frames, also where other filters share the program.
  /// They return at once; the value counts for frames that begin later.
  void setInteger(std::int32_t value, const std::string& uniformName);
  void setFloat(float value, const std::string& uniformName);
  void setSize(Size value, const std::string& uniformName);
  void setPoint(Point value, const std::string& uniformName);
  void setFloatVec3(Vector3 value, const std::string& uniformName);
  void setFloatVec4(Vector4 value, std::int32_t uniform);
  void setFloatArray(const std::vector<float>& values, std::int32_t uniform);

  void setMatrix3f(const Matrix3& matrix, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);
  void setMatrix4f(const Matrix4& matrix, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);
  void setFloat(float value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);
  void setPoint(Point value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);
  void setSize(Size value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);
  void setVec3(Vector3 value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);
  void setVec4(Vector4 value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);
  void setFloatArray(const std::vector<float>& values, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);
  void setInteger(std::int32_t value, std::int32_t uniform, const std::shared_ptr<GLProgram>& program);

  /// Null when it could not be linked.
  [[nodiscard]] const std::shared_ptr<GLProgram>& filterProgram() const { return filterProgram_; }
  [[nodiscard]] virtual Size outputFrameSize() const { return inputTextureSize(); }
  /// Size of the framebuffer that is rendered into.
  [[nodiscard]] virtual Size sizeOfFBO() const;

  void newFrameReadyAtTime(MediaTime frameTime, std::size_t index) override;
  void setInputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer, std::size_t index) override;
  [[nodiscard]] std::size_t nextAvailableTextureIndex() const override { return 0; }
  void setInputSize(Size size, std::size_t index) override;
  void setInputRotation(GPUImageInputTurn turn, std::size_t index) override;
  [[nodiscard]] Size maximumOutputSize() const override { return {}; }
  void endProcessing() override;
  [[nodiscard]] bool shouldIgnoreUpdatesToThisTarget() const override {
    return GPUImageOutput::shouldIgnoreUpdatesToThisTarget();
  }
  [[nodiscard]] bool enabled() const override { return GPUImageOutput::enabled(); }
  [[nodiscard]] bool wantsMonochromeInput() const override { return false; }
  void setCurrentlyReceivingMonochromeInput(bool monochrome) override {
    currentlyReceivingMonochromeInput_ = monochrome;
  }

 protected:
  /// What the fragment shader makes of its input, with the default vertex shader.
  enum class Effect { Any, Copy };

  /// An input's framebuffer: locked when it is supplied, unlocked once when it has been drawn or is replaced.
  class Input {
   public:
    void supply(std::shared_ptr<GPUImageFramebuffer> framebuffer);
    void unlock();
    [[nodiscard]] const GPUImageFramebuffer* get() const { return framebuffer_.get(); }
    /// 0 when there is none.
    [[nodiscard]] std::uint32_t texture() const { return framebuffer_ ? framebuffer_->texture() : 0; }
    /// Whether this holds the only lock.
    [[nodiscard]] bool isOnlyHolder() const;
    /// Gives the lock to the caller.
    [[nodiscard]] std::shared_ptr<GPUImageFramebuffer> handOn();

   private:
    std::shared_ptr<GPUImageFramebuffer> framebuffer_;
    bool locked_ = false;
  };

  GPUImageFilter();
  void initWithShaders(const std::string& vertexShader, const std::string& fragmentShader, Effect effect = Effect::Any);
  /// Adds the attributes of the vertex shader to the new program, in the order of their locations.
  virtual void initializeAttributes();
  /// Called after each change of the input's size with the size that is rendered.
  virtual void setupFilterForSize(Size) {}
  /// `size` as it is after the turn of input `index`.
  [[nodiscard]] virtual Size rotatedSize(Size size, std::size_t index) const;
  virtual void renderToTextureWithVertices(const GPUImageQuad& vertices, const GPUImageQuad& textureCoordinates);
  virtual void informTargetsAboutNewFrameAtTime(MediaTime frameTime);
  /// Lets go of the inputs of a frame.
  virtual void unlockInputs();
  /// Binds what the program needs beyond the first input.
  virtual void bindFurtherInputs() {}

  /// Applies every stored uniform; there is one program only.
  void setUniformsForProgramAtIndex(std::size_t programIndex);
  /// Stores the block for the location and runs it.
  void setAndExecuteUniformStateCallbackAtIndex(std::int32_t uniform, const std::shared_ptr<GLProgram>& program,
                                                UniformBlock block);

  [[nodiscard]] GPUImageInputTurn inputRotation() const { return inputRotation_; }

 private:
  [[nodiscard]] bool mayHandOnInput(const GPUImageQuad& vertices, const GPUImageQuad& textureCoordinates) const;
  void draw(const GPUImageQuad& vertices, const GPUImageQuad& textureCoordinates);
  template <typename SetUniform>
  void enqueueUniform(std::int32_t uniform, const std::shared_ptr<GLProgram>& program, SetUniform set);
  template <typename Setter>
  void enqueueNamed(const std::string& uniformName, Setter setter);

  // Constant once made.
  std::shared_ptr<GLProgram> filterProgram_;
  std::uint32_t filterPositionAttribute_ = GLProgram::kNotFound;
  std::uint32_t filterTextureCoordinateAttribute_ = GLProgram::kNotFound;
  std::int32_t filterInputTextureUniform_ = -1;
  Effect effect_ = Effect::Any;

  // On the video-processing queue.
  Input firstInput_;
  GPUImageInputTurn inputRotation_ = kGPUImageTurnNone;
  std::unordered_map<std::int32_t, UniformBlock> uniformStateRestorationBlocks_;
  bool capturesThisFrame_ = false;
  std::shared_ptr<GPUImageFramebuffer> captured_;  // With a lock of its own.

  std::mutex colorMutex_;
  Vector4 backgroundColor_{};  // Guarded by colorMutex_.
  CountingSemaphore imageCaptureSemaphore_{1};
  std::atomic<bool> usingNextFrameForImageCapture_ = false;
  std::atomic<bool> preventRendering_ = false;
  std::atomic<bool> isEndProcessing_ = false;
  std::atomic<bool> currentlyReceivingMonochromeInput_ = false;
};

}  // namespace zellive
