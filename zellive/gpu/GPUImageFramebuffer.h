#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "zellive/platform/Geometry.h"
#include "zellive/platform/Image.h"
#include "zellive/platform/PixelBuffer.h"
#include "zellive/platform/TextureCache.h"

namespace zellive {

/// How a framebuffer's texture is made and sampled: OpenGL ES enumerants.
struct GPUTextureOptions {
  std::uint32_t minFilter = 0x2601;       ///< GL_LINEAR.
  std::uint32_t magFilter = 0x2601;       ///< GL_LINEAR.
  std::uint32_t wrapS = 0x812F;           ///< GL_CLAMP_TO_EDGE.
  std::uint32_t wrapT = 0x812F;           ///< GL_CLAMP_TO_EDGE.
  std::uint32_t internalFormat = 0x1908;  ///< GL_RGBA.
  std::uint32_t format = 0x80E1;          ///< GL_BGRA.
  std::uint32_t type = 0x1401;            ///< GL_UNSIGNED_BYTE.
  friend bool operator==(const GPUTextureOptions&, const GPUTextureOptions&) = default;
};

/// One picture on its way through the pipeline: a texture of the shared GPUImageContext and, unless it is texture-only,
/// a framebuffer object to draw into it and a BGRA picture in memory with what was drawn.
///
/// Stages count their holds with lock() and unlock(); the last unlock() gives the framebuffer to the cache, which hands
/// it out again. Those who only lend it from such a stage finish with it before they return, or take a picture of it.
///
/// Any thread; making and ending one, and taking its bytes, wait for the video-processing queue.
class GPUImageFramebuffer : public std::enable_shared_from_this<GPUImageFramebuffer> {
 public:
  /// `size`: pixels, of which whole ones are used. A size that cannot be made is logged and gives a framebuffer that
  /// swallows what is drawn and has no bytes. A texture-only one has a texture without storage, for its maker to fill.
  [[nodiscard]] static std::shared_ptr<GPUImageFramebuffer> create(Size size,
                                                                   const GPUTextureOptions& textureOptions = {},
                                                                   bool onlyTexture = false);
  /// Around a texture of the shared context, which is deleted with it. Counting is disabled.
  [[nodiscard]] static std::shared_ptr<GPUImageFramebuffer> createWithTexture(Size size,
                                                                              std::uint32_t overriddenTexture);
  /// Around a texture of the shared context's texture cache, which serves again after this. Counting is disabled.
  [[nodiscard]] static std::shared_ptr<GPUImageFramebuffer> createWithTexture(
      Size size, std::shared_ptr<const PixelBufferTexture> cachedTexture);
  ~GPUImageFramebuffer();
  GPUImageFramebuffer(const GPUImageFramebuffer&) = delete;
  GPUImageFramebuffer& operator=(const GPUImageFramebuffer&) = delete;

  [[nodiscard]] Size size() const { return size_; }
  [[nodiscard]] const GPUTextureOptions& textureOptions() const { return textureOptions_; }
  /// The OpenGL name of the texture; 0 when it could not be made.
  [[nodiscard]] std::uint32_t texture() const { return texture_; }
  /// Texture-only.
  [[nodiscard]] bool missingFramebuffer() const { return missingFramebuffer_; }

  /// Whether there is a texture with memory that can be drawn into and read.
  [[nodiscard]] bool isRenderTarget() const { return renderTarget_ != nullptr; }

  /// Video-processing queue, context current: draws into this from now on, in whole pixels of its size.
  void activateFramebuffer();

  void lock();
  /// Unlocking more often than locking is not guarded: the count wraps and the framebuffer never returns to the cache.
  void unlock();
  void clearAllLocks() { framebufferReferenceCount_ = 0; }
  /// lock() and unlock() do nothing meanwhile, so the framebuffer stays with its owner.
  void disableReferenceCounting() { referenceCountingDisabled_ = true; }
  void enableReferenceCounting() { referenceCountingDisabled_ = false; }
  [[nodiscard]] std::uint64_t framebufferReferenceCount() const { return framebufferReferenceCount_; }
  [[nodiscard]] bool referenceCountingDisabled() const { return referenceCountingDisabled_; }

  /// What was drawn, lent: this framebuffer stays out of the cache until the image is destroyed, which also unlocks it
  /// once. Null when there are no bytes.
  [[nodiscard]] std::unique_ptr<Image> newCGImageFromFramebufferContents();

  /// What was drawn, as a BGRA picture; its first row is t = 0. It is read from the GPU once after each drawing, by the
  /// first to ask. Whoever keeps it may do so for any time: it never changes. Null when texture-only or without bytes.
  [[nodiscard]] std::shared_ptr<PixelBuffer> pixelBuffer();
  /// The first byte of pixelBuffer(), valid until the next drawing's bytes are taken, or until the last
  /// unlockAfterReading() where reading is locked.
  [[nodiscard]] std::uint8_t* byteBuffer();
  /// From one row of byteBuffer() to the next.
  [[nodiscard]] std::size_t bytesPerRow() const;
  /// Keeps the bytes that were drawn where they are. Calls nest.
  void lockForReading();
  void unlockAfterReading();
  [[nodiscard]] std::uint64_t readLockCount() const { return readLockCount_; }
  /// Ends the reading lock of an image.
  void restoreRenderTarget();

 private:
  GPUImageFramebuffer(Size size, const GPUTextureOptions& textureOptions, bool onlyTexture)
      : size_(size), textureOptions_(textureOptions), missingFramebuffer_(onlyTexture) {}
  void generateTexture();
  void generateFramebuffer();
  void destroyFramebuffer();
  [[nodiscard]] std::shared_ptr<PixelBuffer> takeBytes();

  const Size size_;
  const GPUTextureOptions textureOptions_;
  const bool missingFramebuffer_;
  // On the video-processing queue, and constant once made.
  std::uint32_t framebuffer_ = 0;
  std::uint32_t texture_ = 0;
  std::shared_ptr<RenderTarget> renderTarget_;
  std::shared_ptr<const PixelBufferTexture> cachedTexture_;
  // On the video-processing queue.
  std::shared_ptr<PixelBuffer> lockedBytes_;

  std::atomic<std::uint64_t> readLockCount_ = 0;
  std::atomic<std::uint64_t> framebufferReferenceCount_ = 0;
  std::atomic<bool> referenceCountingDisabled_ = false;
};

}  // namespace zellive
