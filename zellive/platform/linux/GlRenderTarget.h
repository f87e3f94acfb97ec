#pragma once

#include <memory>

#include "zellive/platform/GraphicsContext.h"
#include "zellive/platform/linux/GlTransfer.h"

namespace zellive {

/// A texture that is read into a picture of `pool`, which is as large as the texture.
class GlRenderTarget : public RenderTarget {
 public:
  /// Takes over the texture `name`.
  GlRenderTarget(std::shared_ptr<GraphicsContext> context, const GlCapabilities& capabilities, std::uint32_t name,
                 std::shared_ptr<PixelBufferPool> pool);
  ~GlRenderTarget() override;
  GlRenderTarget(const GlRenderTarget&) = delete;
  GlRenderTarget& operator=(const GlRenderTarget&) = delete;

  [[nodiscard]] const PixelBufferTexture& texture() const override { return texture_; }
  [[nodiscard]] std::size_t bytesPerRow() const override;
  void contentsWillChange() override { stale_ = true; }
  [[nodiscard]] std::shared_ptr<PixelBuffer> pixelBuffer() override;

 private:
  [[nodiscard]] bool readInto(PixelBuffer& picture);

  const std::shared_ptr<GraphicsContext> context_;
  const GlCapabilities capabilities_;
  const PixelBufferTexture texture_;
  const std::shared_ptr<PixelBufferPool> pool_;
  std::shared_ptr<PixelBuffer> picture_;
  std::uint32_t framebuffer_ = 0;  // For reading; made at the first.
  bool stale_ = true;
};

}  // namespace zellive
