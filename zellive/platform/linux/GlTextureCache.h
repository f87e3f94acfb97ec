#pragma once

#include <memory>

#include "zellive/platform/GraphicsContext.h"

namespace zellive {

/// Textures that pictures are copied into, and render targets that are read into pooled pictures. `context` is current.
[[nodiscard]] std::unique_ptr<TextureCache> makeGlTextureCache(std::shared_ptr<GraphicsContext> context);

}  // namespace zellive
