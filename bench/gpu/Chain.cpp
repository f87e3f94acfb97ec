// Puts NV12 pictures through upload, conversion, two pass-through filters and read-back, and does nothing else.
// Usage: zellive_gpu_chain WIDTH HEIGHT FRAMES handed|drawn
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "tests/support/FakeCameras.h"
#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFilter.h"
#include "zellive/gpu/GPUImageVideoCamera.h"

namespace {

/// What the pass-through filter has, under another text: such a filter cannot be known to copy, and draws.
constexpr char kIdentity[] =
    "varying highp vec2 textureCoordinate; uniform sampler2D inputImageTexture; void main() { gl_FragColor = "
    "texture2D(inputImageTexture, textureCoordinate); }  ";

}  // namespace

int main(int argc, char** argv) {
  using namespace zellive;
  if (argc != 5) {
    std::fprintf(stderr, "usage: %s WIDTH HEIGHT FRAMES handed|drawn\n", argv[0]);
    return 2;
  }
  const auto picture = PixelBuffer::create(PixelFormat::BiPlanarVideoRange, std::strtoul(argv[1], nullptr, 10),
                                           std::strtoul(argv[2], nullptr, 10));
  const long frames = std::strtol(argv[3], nullptr, 10);
  if (!picture) {
    return 2;
  }
  for (std::size_t i = 0; i < picture->planeCount(); ++i) {
    std::memset(picture->plane(i).base, 0, picture->plane(i).bytesPerRow * picture->plane(i).height);
  }
  const auto makeFilter = [drawn = std::strcmp(argv[4], "drawn") == 0] {
    return drawn ? GPUImageFilter::createWithFragmentShader(kIdentity) : GPUImageFilter::create();
  };
  const auto source = test::fakeVideoCamera(PixelFormat::BiPlanarVideoRange);
  const auto first = makeFilter();
  const auto second = makeFilter();
  source->addTarget(first);
  first->addTarget(second);
  long read = 0;
  second->setFrameProcessingCompletionBlock([&](GPUImageOutput& output, MediaTime) {
    read += output.framebufferForOutput()->pixelBuffer() != nullptr ? 1 : 0;
  });
  for (long frame = 0; frame < frames; ++frame) {
    runSynchronouslyOnVideoProcessingQueue([&] {
      source->processVideoSampleBuffer({picture, MediaTime::make(frame, 30)});
    });
  }
  if (read != frames) {
    std::fprintf(stderr, "%ld of %ld pictures came out\n", read, frames);
    return 1;
  }
  return 0;
}
