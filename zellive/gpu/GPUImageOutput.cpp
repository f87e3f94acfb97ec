#include "zellive/gpu/GPUImageOutput.h"

#include <GLES2/gl2.h>

#include <algorithm>
#include <utility>

#include "zellive/gpu/GPUImageContext.h"

namespace zellive {
namespace {

template <typename Targets>
auto findTarget(Targets& targets, const std::shared_ptr<GPUImageInput>& input) {
  return std::find_if(targets.begin(), targets.end(), [&](const auto& target) { return target.input == input; });
}

void disconnect(GPUImageInput& target, std::size_t index) {
  target.setInputSize({}, index);
  target.setInputRotation(kGPUImageTurnNone, index);
}

}  // namespace

GPUImageOutput::GPUImageOutput() : targets_(std::make_shared<const std::vector<Target>>()) {}

GPUImageOutput::~GPUImageOutput() {
  removeAllTargets();
  removeOutputFramebuffer();
}

std::shared_ptr<GPUImageFramebuffer> GPUImageOutput::framebufferForOutput() const {
  const std::lock_guard lock(mutex_);
  return outputFramebuffer_;
}

void GPUImageOutput::setOutputFramebuffer(std::shared_ptr<GPUImageFramebuffer> framebuffer) {
  // The former one may end outside the lock.
  const std::lock_guard lock(mutex_);
  outputFramebuffer_.swap(framebuffer);
}

void GPUImageOutput::removeOutputFramebuffer() { setOutputFramebuffer(nullptr); }

void GPUImageOutput::setInputFramebufferForTarget(GPUImageInput& target, std::size_t index) {
  target.setInputFramebuffer(framebufferForOutput(), index);
}

void GPUImageOutput::notifyTargetsAboutNewOutputTexture() {
  const auto list = connections();
  for (const auto& target : *list) {
    setInputFramebufferForTarget(*target.input, target.index);
  }
}

std::shared_ptr<const std::vector<GPUImageOutput::Target>> GPUImageOutput::connections() const {
  const std::lock_guard lock(mutex_);
  return targets_;
}

void GPUImageOutput::setTargets(std::vector<Target> targets) {
  auto list = std::make_shared<const std::vector<Target>>(std::move(targets));
  const std::lock_guard lock(mutex_);
  targets_.swap(list);
}

std::vector<std::shared_ptr<GPUImageInput>> GPUImageOutput::targets() const {
  const auto list = connections();
  std::vector<std::shared_ptr<GPUImageInput>> inputs;
  for (const auto& target : *list) {
    inputs.push_back(target.input);
  }
  return inputs;
}

void GPUImageOutput::addTarget(const std::shared_ptr<GPUImageInput>& target) {
  if (!target) {
    return;
  }
  // On the queue, so that two sources cannot be given the same slot.
  runSynchronouslyOnVideoProcessingQueue([&] {
    addTarget(target, target->nextAvailableTextureIndex());
    if (target->shouldIgnoreUpdatesToThisTarget()) {
      setTargetToIgnoreForUpdates(target);
    }
  });
}

void GPUImageOutput::addTarget(const std::shared_ptr<GPUImageInput>& target, std::size_t textureLocation) {
  runSynchronouslyOnVideoProcessingQueue([&] {
    auto list = *connections();
    if (!target || findTarget(list, target) != list.end()) {
      return;
    }
    setInputFramebufferForTarget(*target, textureLocation);
    list.push_back({target, textureLocation});
    setTargets(std::move(list));
    allTargetsWantMonochromeData_ = allTargetsWantMonochromeData_ && target->wantsMonochromeInput();
  });
}

void GPUImageOutput::removeTarget(const std::shared_ptr<GPUImageInput>& target) {
  runSynchronouslyOnVideoProcessingQueue([&] {
    auto list = *connections();
    const auto found = findTarget(list, target);
    if (found == list.end()) {
      return;
    }
    if (targetToIgnoreForUpdates() == target) {
      setTargetToIgnoreForUpdates(nullptr);
    }
    disconnect(*target, found->index);
    list.erase(found);
    setTargets(std::move(list));
    target->endProcessing();
  });
}

void GPUImageOutput::removeAllTargets() {
  runSynchronouslyOnVideoProcessingQueue([&] {
    const auto list = connections();
    for (const auto& target : *list) {
      disconnect(*target.input, target.index);
    }
    setTargets({});
    allTargetsWantMonochromeData_ = true;
  });
}

void GPUImageOutput::setFrameProcessingCompletionBlock(FrameProcessingCompletionBlock block) {
  auto next = block ? std::make_shared<const FrameProcessingCompletionBlock>(std::move(block)) : nullptr;
  const std::lock_guard lock(mutex_);
  frameProcessingCompletionBlock_.swap(next);
}

std::shared_ptr<const GPUImageOutput::FrameProcessingCompletionBlock> GPUImageOutput::frameProcessingCompletionBlock()
    const {
  const std::lock_guard lock(mutex_);
  return frameProcessingCompletionBlock_;
}

std::shared_ptr<GPUImageInput> GPUImageOutput::targetToIgnoreForUpdates() const {
  const std::lock_guard lock(mutex_);
  return targetToIgnoreForUpdates_.lock();
}

void GPUImageOutput::setTargetToIgnoreForUpdates(const std::shared_ptr<GPUImageInput>& target) {
  const std::lock_guard lock(mutex_);
  targetToIgnoreForUpdates_ = target;
}

GPUTextureOptions GPUImageOutput::outputTextureOptions() const {
  const std::lock_guard lock(mutex_);
  return outputTextureOptions_;
}

void GPUImageOutput::setOutputTextureOptions(const GPUTextureOptions& options) {
  {
    const std::lock_guard lock(mutex_);
    outputTextureOptions_ = options;
  }
  if (const auto framebuffer = framebufferForOutput(); framebuffer && framebuffer->texture() != 0) {
    runAsynchronouslyOnVideoProcessingQueue([framebuffer, options] {
      GPUImageContext::useImageProcessingContext();
      glBindTexture(GL_TEXTURE_2D, framebuffer->texture());
      glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, static_cast<GLint>(options.wrapS));
      glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, static_cast<GLint>(options.wrapT));
      glBindTexture(GL_TEXTURE_2D, 0);
    });
  }
}

std::shared_ptr<GPUImageAudioEncodingTarget> GPUImageOutput::audioEncodingTarget() const {
  const std::lock_guard lock(mutex_);
  return audioEncodingTarget_;
}

void GPUImageOutput::setAudioEncodingTarget(std::shared_ptr<GPUImageAudioEncodingTarget> target) {
  {
    const std::lock_guard lock(mutex_);
    audioEncodingTarget_ = target;
  }
  if (target && !target->hasAudioTrack()) {
    target->setHasAudioTrack(true);
  }
}

Size GPUImageOutput::inputTextureSize() const {
  const std::lock_guard lock(mutex_);
  return inputTextureSize_;
}

void GPUImageOutput::setInputTextureSize(Size size) {
  const std::lock_guard lock(mutex_);
  inputTextureSize_ = size;
}

GPUImageOutput::ForcedSize GPUImageOutput::forcedSize() const {
  const std::lock_guard lock(mutex_);
  return forcedSize_;
}

void GPUImageOutput::setForcedSize(ForcedSize forced) {
  const std::lock_guard lock(mutex_);
  forcedSize_ = forced;
}

}  // namespace zellive
