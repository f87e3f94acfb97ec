#pragma once

#include <memory>
#include <string>

#include "zellive/gpu/GPUImageFilter.h"

namespace zellive {

/// Waits for a frame on each of two inputs and draws both at once. The output follows the size of the first input. A
/// moving picture does not wait for a still one, whose time is indefinite. The first source that is connected gets slot
/// 0, the next slot 1.
class GPUImageTwoInputFilter : public GPUImageFilter {
 public:
  /// The fragment shader finds the second input in "inputImageTexture2", at "textureCoordinate2".
  [[nodiscard]] static std::shared_ptr<GPUImageTwoInputFilter> createWithFragmentShader(
      const std::string& fragmentShader);
  [[nodiscard]] static std::shared_ptr<GPUImageTwoInputFilter> createWithShaders(const std::string& vertexShader,
                                                                                 const std::string& fragmentShader);

  /// That input then counts as always there: what it supplied last is drawn.
  void disableFirstFrameCheck() { firstFrameCheckDisabled_ = true; }
  void disableSecondFrameCheck() { secondFrameCheckDisabled_ = true; }

  void newFrameReadyAtTime(MediaTime frameTime, std::size_t index) override;
  void setInputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer, std::size_t index) override;
  [[nodiscard]] std::size_t nextAvailableTextureIndex() const override { return hasSetFirstTexture_ ? 1 : 0; }
  void setInputSize(Size size, std::size_t index) override;
  void setInputRotation(GPUImageInputTurn turn, std::size_t index) override;

 protected:
  GPUImageTwoInputFilter() = default;
  /// In place of initWithShaders.
  void initWithTwoInputShaders(const std::string& vertexShader, const std::string& fragmentShader);
  void initializeAttributes() override;
  [[nodiscard]] Size rotatedSize(Size size, std::size_t index) const override;
  void unlockInputs() override;
  void bindFurtherInputs() override;

 private:
  // Constant once made.
  std::uint32_t filterSecondTextureCoordinateAttribute_ = GLProgram::kNotFound;
  std::int32_t filterInputTextureUniform2_ = -1;
  // On the video-processing queue.
  Input secondInput_;
  GPUImageInputTurn inputRotation2_ = kGPUImageTurnNone;
  MediaTime firstFrameTime_;
  MediaTime secondFrameTime_;
  bool hasReceivedFirstFrame_ = false;
  bool hasReceivedSecondFrame_ = false;

  std::atomic<bool> hasSetFirstTexture_ = false;
  std::atomic<bool> firstFrameCheckDisabled_ = false;
  std::atomic<bool> secondFrameCheckDisabled_ = false;
};

}  // namespace zellive
