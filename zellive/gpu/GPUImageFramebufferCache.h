#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zellive/gpu/GPUImageFramebuffer.h"
#include "zellive/platform/NotificationCenter.h"

namespace zellive {

/// Keeps framebuffers that nobody holds and hands them out again, the last returned of a kind first. A kind is a size,
/// texture options, and whether there is a framebuffer object. A memory warning empties it. Thread-safe; what changes
/// the cache runs on the video-processing queue.
class GPUImageFramebufferCache : public std::enable_shared_from_this<GPUImageFramebufferCache> {
 public:
  /// `notifications` tell of memory running short.
  [[nodiscard]] static std::shared_ptr<GPUImageFramebufferCache> create(
      const std::shared_ptr<NotificationCenter>& notifications);

  /// The kind as a text: "1280.0x720.0-9729:9729:33071:33071:6408:32993:5121", with "-NOFB" for texture-only.
  [[nodiscard]] static std::string hashForSize(Size size, const GPUTextureOptions& textureOptions, bool onlyTexture);
  /// A framebuffer with one lock. Waits for the queue.
  [[nodiscard]] std::shared_ptr<GPUImageFramebuffer> fetchFramebufferForSize(Size size,
                                                                             const GPUTextureOptions& textureOptions,
                                                                             bool onlyTexture);
  [[nodiscard]] std::shared_ptr<GPUImageFramebuffer> fetchFramebufferForSize(Size size, bool onlyTexture) {
    return fetchFramebufferForSize(size, {}, onlyTexture);
  }
  /// Clears its locks at once; it can be fetched when the queue has come to it.
  void returnFramebufferToCache(std::shared_ptr<GPUImageFramebuffer> framebuffer);
  /// Forgets, when the queue comes to it, what nobody holds.
  void purgeAllUnassignedFramebuffers();

  /// Keeps a framebuffer alive while an image of it is lent.
  void addFramebufferToActiveImageCaptureList(std::shared_ptr<GPUImageFramebuffer> framebuffer);
  void removeFramebufferFromActiveImageCaptureList(std::shared_ptr<GPUImageFramebuffer> framebuffer);

 private:
  GPUImageFramebufferCache() = default;

  // On the video-processing queue. A kind's framebuffers in the order of their return.
  std::map<std::string, std::vector<std::shared_ptr<GPUImageFramebuffer>>, std::less<>> framebufferCache_;
  std::vector<std::shared_ptr<GPUImageFramebuffer>> activeImageCaptureList_;
  NotificationCenter::Observation memoryWarningObserver_;
};

}  // namespace zellive
