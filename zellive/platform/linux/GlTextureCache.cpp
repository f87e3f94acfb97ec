#include "zellive/platform/linux/GlTextureCache.h"

#include <GLES2/gl2.h>

#include <cstdint>
#include <utility>
#include <vector>

#include "zellive/platform/linux/GlRenderTarget.h"
#include "zellive/platform/linux/GlTransfer.h"

namespace zellive {
namespace {

/// Users who flush before each picture keep a texture or two in their hands for a while.
constexpr std::uint64_t kIdleFlushes = 24;

void setDefaultParameters() {
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
}

class GlTextureCache : public TextureCache {
 public:
  explicit GlTextureCache(std::shared_ptr<GraphicsContext> context)
      : context_(std::move(context)), capabilities_(GlCapabilities::ofCurrentContext()) {}

  TextureResult<const PixelBufferTexture> makeTexture(const PixelBuffer& picture, std::size_t plane,
                                                      const TextureShape& shape) override {
    if (const auto status = check(shape); status != TextureStatus::Made) {
      return {nullptr, status};
    }
    const std::size_t pixel = bytesPerPixel(shape.format, shape.type);
    if (pixel == 0) {
      return {nullptr, TextureStatus::NotSupported};
    }
    if (plane >= picture.planeCount() || shape.height > picture.plane(plane).height ||
        shape.width * pixel > picture.plane(plane).bytesPerRow) {
      return {nullptr, TextureStatus::BadPicture};
    }
    auto texture = idleTexture(shape);
    if (!texture) {
      const auto name = generate(driverShape(shape, capabilities_.bgraTextures));
      if (name == 0) {
        return {nullptr, TextureStatus::NotSupported};
      }
      texture = std::make_shared<Kept>(context_, name, shape);
      kept_.push_back(texture);
    }
    texture->lastUse = flushes_;
    glBindTexture(GL_TEXTURE_2D, texture->name);
    setDefaultParameters();
    uploadRows(capabilities_, shape,
               {picture.plane(plane).base, picture.plane(plane).bytesPerRow, shape.width, shape.height}, scratch_);
    return {texture, TextureStatus::Made};
  }

  TextureResult<RenderTarget> makeRenderTarget(const TextureShape& shape) override {
    if (const auto status = check(shape); status != TextureStatus::Made) {
      return {nullptr, status};
    }
    auto pool = poolFor(shape.width, shape.height);
    if (!pool) {
      return {nullptr, TextureStatus::BadPicture};
    }
    const auto name = generate(driverShape(shape, capabilities_.bgraTargets));
    if (name == 0) {
      return {nullptr, TextureStatus::NotSupported};
    }
    setDefaultParameters();
    return {std::make_shared<GlRenderTarget>(context_, capabilities_, name, std::move(pool)), TextureStatus::Made};
  }

  void flush(Flush which) override {
    ++flushes_;
    std::erase_if(kept_, [&](const auto& texture) {
      return texture.use_count() == 1 && (which == Flush::All || flushes_ - texture->lastUse > kIdleFlushes);
    });
    std::erase_if(pools_, [](const auto& pool) { return pool.expired(); });
  }

 private:
  /// A texture that pictures are copied into, one after the other.
  struct Kept : PixelBufferTexture {
    Kept(std::shared_ptr<GraphicsContext> owner, std::uint32_t texture, const TextureShape& form)
        : PixelBufferTexture{GL_TEXTURE_2D, texture}, context(std::move(owner)), shape(form) {}
    ~Kept() {
      if (context->isCurrent()) {
        glDeleteTextures(1, &name);
      }
    }
    Kept(const Kept&) = delete;
    Kept& operator=(const Kept&) = delete;

    const std::shared_ptr<GraphicsContext> context;
    const TextureShape shape;
    std::uint64_t lastUse = 0;
  };

  [[nodiscard]] TextureStatus check(const TextureShape& shape) const {
    if (!context_->isCurrent()) {
      return TextureStatus::NoContext;
    }
    if (shape.width == 0 || shape.height == 0) {
      return TextureStatus::BadPicture;
    }
    return shape.width > capabilities_.maximumTextureSize || shape.height > capabilities_.maximumTextureSize
               ? TextureStatus::TooLarge
               : TextureStatus::Made;
  }

  [[nodiscard]] std::shared_ptr<Kept> idleTexture(const TextureShape& shape) const {
    for (const auto& texture : kept_) {
      if (texture.use_count() == 1 && texture->shape == shape) {
        return texture;
      }
    }
    return nullptr;
  }

  /// A texture of that shape, bound; 0 when the driver refuses it.
  [[nodiscard]] static std::uint32_t generate(const TextureShape& shape) {
    for (int earlier = 0; earlier < 8 && glGetError() != GL_NO_ERROR; ++earlier) {
    }
    GLuint name = 0;
    glGenTextures(1, &name);
    glBindTexture(GL_TEXTURE_2D, name);
    glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(shape.internalFormat), static_cast<GLsizei>(shape.width),
                 static_cast<GLsizei>(shape.height), 0, shape.format, shape.type, nullptr);
    if (glGetError() != GL_NO_ERROR) {
      glDeleteTextures(1, &name);
      return 0;
    }
    return name;
  }

  [[nodiscard]] std::shared_ptr<PixelBufferPool> poolFor(std::size_t width, std::size_t height) {
    for (const auto& weak : pools_) {
      auto pool = weak.lock();
      if (pool && pool->width() == width && pool->height() == height) {
        return pool;
      }
    }
    std::shared_ptr<PixelBufferPool> pool = PixelBufferPool::create(PixelFormat::BGRA, width, height);
    if (pool) {
      pools_.push_back(pool);
    }
    return pool;
  }

  const std::shared_ptr<GraphicsContext> context_;
  const GlCapabilities capabilities_;
  std::vector<std::shared_ptr<Kept>> kept_;
  std::vector<std::weak_ptr<PixelBufferPool>> pools_;  // One for all targets of a size.
  std::vector<std::uint8_t> scratch_;
  std::uint64_t flushes_ = 0;
};

}  // namespace

std::unique_ptr<TextureCache> makeGlTextureCache(std::shared_ptr<GraphicsContext> context) {
  return std::make_unique<GlTextureCache>(std::move(context));
}

}  // namespace zellive
