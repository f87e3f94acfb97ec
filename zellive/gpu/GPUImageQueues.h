#pragma once

#include <memory>
#include <type_traits>
#include <utility>

#include "zellive/platform/Queue.h"

namespace zellive {

class GPUImageContext;

/// A callable that is lent for the length of a call, so that calling it at once costs no memory.
class BlockReference {
 public:
  template <typename Block>
  requires(!std::is_same_v<std::remove_cvref_t<Block>, BlockReference>)
      BlockReference(Block&& block)  // NOLINT(google-explicit-constructor): made from any lambda in a call.
      : block_(const_cast<void*>(static_cast<const void*>(std::addressof(block)))),
        call_([](void* pointer) { (*static_cast<std::remove_reference_t<Block>*>(pointer))(); }) {}
  void operator()() const { call_(block_); }

 private:
  void* block_;
  void (*call_)(void*);
};

/// True when the calling code runs on the queue of any GPUImageContext. What is handed to the functions below from
/// there runs at once, on that queue, whichever context it is meant for: a nested call never waits for another queue.
[[nodiscard]] bool isOnContextQueue();

/// Runs `block` on the main queue and waits for it; at once on the main queue itself. From a context queue it waits for
/// the main queue, which must not wait for that queue then.
void runOnMainQueueWithoutDeadlocking(BlockReference block);
/// Runs `block` on the shared context's queue and waits for it. Once the process exits nothing runs there any more, and
/// these return at once.
void runSynchronouslyOnVideoProcessingQueue(BlockReference block);
/// Runs `block` on that context's queue and waits for it.
void runSynchronouslyOnContextQueue(GPUImageContext& context, BlockReference block);

/// The queue of the shared context.
[[nodiscard]] std::shared_ptr<Queue> videoProcessingQueue();
/// These drop `block` once the process exits.
void postToVideoProcessingQueue(Task block);
void postToContextQueue(const GPUImageContext& context, Task block);

/// Posts `block` to the shared context's queue.
template <typename Block>
void runAsynchronouslyOnVideoProcessingQueue(Block&& block) {
  if (isOnContextQueue()) {
    block();
  } else {
    postToVideoProcessingQueue(std::forward<Block>(block));
  }
}

/// Posts `block` to that context's queue.
template <typename Block>
void runAsynchronouslyOnContextQueue(const GPUImageContext& context, Block&& block) {
  if (isOnContextQueue()) {
    block();
  } else {
    postToContextQueue(context, std::forward<Block>(block));
  }
}

/// Logs how much memory the process uses; `tag` is "Default" when null.
void reportAvailableMemoryForGPUImage(const char* tag);

}  // namespace zellive
