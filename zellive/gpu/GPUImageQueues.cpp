#include "zellive/gpu/GPUImageQueues.h"

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <utility>

#include "zellive/gpu/GPUImageContext.h"
#include "zellive/platform/Log.h"

namespace zellive {
namespace {

void runAndWait(Queue& queue, BlockReference block) {
  struct Wait {
    BlockReference block;
    std::mutex mutex;
    std::condition_variable changed;
    bool done = false;
  } wait{block, {}, {}};
  queue.async([&wait] {
    wait.block();
    const std::lock_guard lock(wait.mutex);
    wait.done = true;
    wait.changed.notify_one();
  });
  std::unique_lock lock(wait.mutex);
  wait.changed.wait(lock, [&] { return wait.done; });
}

}  // namespace

std::shared_ptr<Queue> videoProcessingQueue() { return GPUImageContext::sharedContextQueue(); }

void postToContextQueue(const GPUImageContext& context, Task block) {
  if (!context.hasEnded()) {
    context.contextQueue()->async(std::move(block));
  }
}

void postToVideoProcessingQueue(Task block) {
  postToContextQueue(GPUImageContext::sharedImageProcessingContext(), std::move(block));
}

void runOnMainQueueWithoutDeadlocking(BlockReference block) {
  const auto main = GPUImageContext::sharedImageProcessingContext().platform().queues->mainQueue();
  main->isCurrent() ? block() : runAndWait(*main, block);
}

void runSynchronouslyOnVideoProcessingQueue(BlockReference block) {
  runSynchronouslyOnContextQueue(GPUImageContext::sharedImageProcessingContext(), block);
}

void runSynchronouslyOnContextQueue(GPUImageContext& context, BlockReference block) {
  if (isOnContextQueue()) {
    block();
  } else if (!context.hasEnded()) {
    runAndWait(*context.contextQueue(), block);
  }
}

void reportAvailableMemoryForGPUImage(const char* tag) {
  const char* name = tag != nullptr ? tag : "Default";
  const auto bytes = GPUImageContext::sharedImageProcessingContext().platform().device->residentMemory();
  if (bytes >= 0) {
    ZEL_LOG_INFO("%s - Memory used: %llu", name, static_cast<unsigned long long>(bytes));
  } else {
    ZEL_LOG_ERROR("%s - Error: %s", name, std::strerror(static_cast<int>(-bytes)));
  }
}

}  // namespace zellive
