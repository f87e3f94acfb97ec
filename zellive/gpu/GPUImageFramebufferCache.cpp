#include "zellive/gpu/GPUImageFramebufferCache.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>
#include <utility>

#include "zellive/gpu/GPUImageContext.h"

namespace zellive {
namespace {

/// A kind's text without memory of its own, for looking up.
class TypeKey {
 public:
  TypeKey(Size size, const GPUTextureOptions& options, bool onlyTexture) {
    const int length = std::snprintf(text_.data(), text_.size(), "%.1fx%.1f-%u:%u:%u:%u:%u:%u:%u%s", size.width,
                                     size.height, options.minFilter, options.magFilter, options.wrapS, options.wrapT,
                                     options.internalFormat, options.format, options.type, onlyTexture ? "-NOFB" : "");
    length_ = std::min(static_cast<std::size_t>(std::max(length, 0)), text_.size() - 1);
  }
  [[nodiscard]] std::string_view view() const { return {text_.data(), length_}; }

 private:
  // A double of full length has 309 digits before the point.
  std::array<char, 768> text_;
  std::size_t length_ = 0;
};

}  // namespace

std::shared_ptr<GPUImageFramebufferCache> GPUImageFramebufferCache::create(
    const std::shared_ptr<NotificationCenter>& notifications) {
  std::shared_ptr<GPUImageFramebufferCache> cache(new GPUImageFramebufferCache);
  cache->memoryWarningObserver_ =
      notifications->addObserver(notification::DidReceiveMemoryWarning, [weak = std::weak_ptr(cache)](const UserInfo&) {
        if (const auto self = weak.lock()) {
          self->purgeAllUnassignedFramebuffers();
        }
      });
  return cache;
}

std::string GPUImageFramebufferCache::hashForSize(Size size, const GPUTextureOptions& textureOptions,
                                                  bool onlyTexture) {
  return std::string(TypeKey(size, textureOptions, onlyTexture).view());
}

std::shared_ptr<GPUImageFramebuffer> GPUImageFramebufferCache::fetchFramebufferForSize(
    Size size, const GPUTextureOptions& textureOptions, bool onlyTexture) {
  std::shared_ptr<GPUImageFramebuffer> framebuffer;
  runSynchronouslyOnVideoProcessingQueue([&] {
    const auto found = framebufferCache_.find(TypeKey(size, textureOptions, onlyTexture).view());
    if (found != framebufferCache_.end() && !found->second.empty()) {
      framebuffer = std::move(found->second.back());
      found->second.pop_back();
    } else {
      framebuffer = GPUImageFramebuffer::create(size, textureOptions, onlyTexture);
    }
  });
  framebuffer->lock();
  return framebuffer;
}

void GPUImageFramebufferCache::returnFramebufferToCache(std::shared_ptr<GPUImageFramebuffer> framebuffer) {
  framebuffer->clearAllLocks();
  runAsynchronouslyOnVideoProcessingQueue([self = shared_from_this(), framebuffer = std::move(framebuffer)]() mutable {
    const TypeKey key(framebuffer->size(), framebuffer->textureOptions(), framebuffer->missingFramebuffer());
    auto found = self->framebufferCache_.find(key.view());
    if (found == self->framebufferCache_.end()) {
      found = self->framebufferCache_.try_emplace(std::string(key.view())).first;
    }
    found->second.push_back(std::move(framebuffer));
  });
}

void GPUImageFramebufferCache::purgeAllUnassignedFramebuffers() {
  runAsynchronouslyOnVideoProcessingQueue([self = shared_from_this()] {
    self->framebufferCache_.clear();
    GPUImageContext::useImageProcessingContext();
    if (auto* const textures = GPUImageContext::sharedImageProcessingContext().coreVideoTextureCache()) {
      textures->flush(TextureCache::Flush::All);
    }
  });
}

void GPUImageFramebufferCache::addFramebufferToActiveImageCaptureList(
    std::shared_ptr<GPUImageFramebuffer> framebuffer) {
  runAsynchronouslyOnVideoProcessingQueue([self = shared_from_this(), framebuffer = std::move(framebuffer)] {
    self->activeImageCaptureList_.push_back(framebuffer);
  });
}

void GPUImageFramebufferCache::removeFramebufferFromActiveImageCaptureList(
    std::shared_ptr<GPUImageFramebuffer> framebuffer) {
  runAsynchronouslyOnVideoProcessingQueue([self = shared_from_this(), framebuffer = std::move(framebuffer)] {
    // One entry for each image of it.
    auto& list = self->activeImageCaptureList_;
    if (const auto found = std::find(list.begin(), list.end(), framebuffer); found != list.end()) {
      list.erase(found);
    }
  });
}

}  // namespace zellive
