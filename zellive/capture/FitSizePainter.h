#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "zellive/gpu/GLProgram.h"
#include "zellive/platform/Geometry.h"
#include "zellive/platform/GraphicsContext.h"
#include "zellive/platform/PixelBuffer.h"

namespace zellive {

/// The half of the fit-size renderer that works on the GPU. Everything but context() on the renderer's queue.
class FitSizePainter {
 public:
  FitSizePainter(Size videoSize, std::shared_ptr<GraphicsService> graphics);
  ~FitSizePainter();
  FitSizePainter(const FitSizePainter&) = delete;
  FitSizePainter& operator=(const FitSizePainter&) = delete;

  /// The picture, fitted; null when it had to be dropped, which is logged.
  [[nodiscard]] std::shared_ptr<PixelBuffer> render(const PixelBuffer& picture);
  /// Gives everything on the GPU back. What is rendered afterwards makes it anew.
  void tearDown();

  [[nodiscard]] std::shared_ptr<GraphicsContext> context() const;
  void setContext(std::shared_ptr<GraphicsContext> context);

 private:
  /// A linked program and where its variables are.
  struct Program {
    std::unique_ptr<GLProgram> program;
    std::uint32_t position = 0;
    std::uint32_t textureCoordinate = 0;
  };
  using Texture = std::shared_ptr<const PixelBufferTexture>;

  [[nodiscard]] bool setupContext(const PixelBuffer& picture);
  void setupProgram();
  [[nodiscard]] static Program makeProgram(const char* name, const char* vertexShader, const char* fragmentShader,
                                           const char* position, const char* textureCoordinate);
  void setupRenderBuffer();
  [[nodiscard]] bool makeRenderTarget();
  void setupVBO(const Program& program, std::size_t pixelWidth, std::size_t pixelHeight);
  void setupVerticesByPixelWidth(std::size_t pixelWidth, std::size_t pixelHeight);
  [[nodiscard]] bool isReadyFor(const Program& program);
  [[nodiscard]] bool drawRGB(const PixelBuffer& picture);
  [[nodiscard]] bool drawYUV(const PixelBuffer& picture);
  void beginPicture(const Program& program);
  void releaseTextureCache();

  const Size videoSize_;
  const std::size_t width_;  ///< Of the output, in whole pixels.
  const std::size_t height_;
  const std::shared_ptr<GraphicsService> graphics_;

  mutable std::mutex mutex_;
  std::shared_ptr<GraphicsContext> context_;  // Guarded by mutex_; changes on the queue only.

  /// Top left, top right, bottom left, bottom right.
  std::array<float, 8> vertices_;
  std::size_t lastPixelWidth_ = 0;
  std::size_t lastPixelHeight_ = 0;
  Program fitRGBProgram_;
  Program fitYUVProgram_;
  std::int32_t textureUniform_ = -1;
  std::int32_t luminanceTextureUniform_ = -1;
  std::int32_t chrominanceTextureUniform_ = -1;
  std::int32_t colorConversionMatrixUniform_ = -1;
  std::unique_ptr<TextureCache> textureCache_;
  Texture texture_;
  Texture lumaTexture_;
  Texture chromaTexture_;
  std::unique_ptr<TextureCache> renderTextureCache_;
  std::shared_ptr<RenderTarget> renderTarget_;
  std::uint32_t renderFrameBuffer_ = 0;
  std::uint64_t undrawable_ = 0;  ///< Pictures that came where nothing can be drawn.
};

}  // namespace zellive
