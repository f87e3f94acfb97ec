#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "zellive/gpu/GLProgram.h"
#include "zellive/gpu/GPUImageQueues.h"
#include "zellive/platform/Geometry.h"
#include "zellive/platform/Platform.h"

namespace zellive {

class GPUImageFramebufferCache;

/// The OpenGL ES 2 context of the image pipeline, the serial queue on which everything that draws runs, the programs
/// compiled so far, the textures over pictures and the framebuffers for reuse. Every class of the pipeline uses the
/// shared instance, which lives to the end of the process.
///
/// Where the machine has no OpenGL ES, or has lost the context, every call does nothing: programs do not link, pictures
/// pass through the pipeline empty, and no picture in memory comes out. One log line says why.
///
/// What is marked "queue" is called on this context's queue, with the context current where it touches OpenGL. The rest
/// is thread-safe.
class GPUImageContext {
 public:
  explicit GPUImageContext(std::shared_ptr<const Platform> platform = defaultPlatform());
  /// Waits for the queue.
  ~GPUImageContext();
  GPUImageContext(const GPUImageContext&) = delete;
  GPUImageContext& operator=(const GPUImageContext&) = delete;

  /// Made at the first call.
  [[nodiscard]] static GPUImageContext& sharedImageProcessingContext();
  /// The platform that the shared instance will be made with, in place of the default one. False, without effect, when
  /// that instance exists already.
  static bool setSharedPlatform(std::shared_ptr<const Platform> platform);
  /// The mark that every context's queue carries; its own address.
  [[nodiscard]] static const void* contextKey();
  [[nodiscard]] static std::shared_ptr<Queue> sharedContextQueue();
  [[nodiscard]] static std::shared_ptr<GPUImageFramebufferCache> sharedFramebufferCache();

  /// Queue: makes the shared instance's context current.
  static void useImageProcessingContext();
  /// Queue: draws with `program`, of the shared instance, from now on.
  static void setActiveShaderProgram(const std::shared_ptr<GLProgram>& program);

  /// Waits until everything that was drawn with the shared context is there. Any thread.
  static void finishDrawing();

  /// Limits of the shared context, read from the driver once. 0 where there is no OpenGL ES. They wait for its queue.
  [[nodiscard]] static std::int32_t maximumTextureSizeForThisDevice();
  [[nodiscard]] static std::int32_t maximumTextureUnitsForThisDevice();
  [[nodiscard]] static std::int32_t maximumVaryingVectorsForThisDevice();
  /// Whether the driver lists the extension of exactly this name.
  [[nodiscard]] static bool deviceSupportsOpenGLESExtension(std::string_view extension);
  [[nodiscard]] static bool deviceSupportsRedTextures();
  [[nodiscard]] static bool deviceSupportsFramebufferReads();
  /// `size` where both sides are below the largest texture's; else the size of the same shape whose longer side is that
  /// limit. Unrounded.
  [[nodiscard]] static Size sizeThatFitsWithinATextureForSize(Size size);
  /// Pictures and textures always share what they hold.
  [[nodiscard]] static constexpr bool supportsFastTextureUpload() { return true; }

  [[nodiscard]] const std::shared_ptr<Queue>& contextQueue() const { return contextQueue_; }
  [[nodiscard]] const Platform& platform() const { return *platform_; }

  /// Queue.
  void useAsCurrentContext();
  /// Queue: binds the program unless it is the last one that was set.
  void setContextShaderProgram(const std::shared_ptr<GLProgram>& program);
  /// Queue: the program that was set last.
  [[nodiscard]] const std::shared_ptr<GLProgram>& currentShaderProgram() const { return currentShaderProgram_; }
  /// Queue: shows the renderbuffer that is bound.
  void presentBufferForDisplay();
  /// Queue: the program of these two sources, the same for the same texts. A new one is compiled but not linked: add
  /// its attributes and link it while it is not initialized().
  [[nodiscard]] std::shared_ptr<GLProgram> programForVertexShaderString(const std::string& vertexShader,
                                                                        const std::string& fragmentShader);

  /// The context to share objects with; without effect once context() exists.
  void useSharegroup(std::shared_ptr<GraphicsContext> sharegroup);
  /// A new context, which the caller owns; null where there is none.
  [[nodiscard]] std::shared_ptr<GraphicsContext> createContext() const;
  /// Made, and made current on the queue, at the first call; null where there is none. Waits for the queue then.
  [[nodiscard]] std::shared_ptr<GraphicsContext> context();
  /// Lets nothing more onto the queue, and waits for what is there, for a second at most. Happens to the shared
  /// instance when the process exits: the driver takes itself down then, and must not find anybody at work.
  void end();
  [[nodiscard]] bool hasEnded() const { return ended_; }
  /// Queue: made at the first call; null while there is no context.
  [[nodiscard]] TextureCache* coreVideoTextureCache();
  /// Made at the first call.
  [[nodiscard]] std::shared_ptr<GPUImageFramebufferCache> framebufferCache();
  /// Forgets the programs and the framebuffers for reuse; the next users get new ones. Waits for the queue.
  void releaseContext();

 private:
  const std::shared_ptr<const Platform> platform_;
  const std::shared_ptr<Queue> contextQueue_;
  std::atomic<bool> ended_ = false;

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<GraphicsContext> sharegroup_;
  std::shared_ptr<GraphicsContext> context_;
  bool contextTried_ = false;
  std::shared_ptr<GPUImageFramebufferCache> framebufferCache_;
  // On contextQueue_.
  std::unordered_map<std::string, std::shared_ptr<GLProgram>> shaderProgramCache_;
  std::shared_ptr<GLProgram> currentShaderProgram_;
  std::unique_ptr<TextureCache> coreVideoTextureCache_;
};

}  // namespace zellive
