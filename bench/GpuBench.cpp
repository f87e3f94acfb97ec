// The stages of the image pipeline, each finished before the next begins. The software renderer works on threads of its
// own, so CPU time is the whole process's.
#include <GLES2/gl2.h>
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <memory>
#include <semaphore>

#include "bench/SampleFrames.h"
#include "tests/support/FakeCameras.h"
#include "zellive/capture/ZelLivePixelBufferFitSizeFilter.h"
#include "zellive/capture/ZelLiveVideoCapture.h"
#include "zellive/gpu/GPUImageAlphaBlendFilter.h"
#include "zellive/gpu/GPUImageContext.h"
#include "zellive/gpu/GPUImageFramebufferCache.h"
#include "zellive/gpu/GPUImageVideoCamera.h"
#include "zellive/gpu/GPUImageView.h"
#include "zellive/platform/Drawing.h"
#include "zellive/platform/ImageView.h"

namespace zellive::bench {
namespace {

constexpr std::array<Size, 2> kSizes = {Size{1280, 720}, Size{1920, 1080}};

std::shared_ptr<PixelBuffer> noisePicture(PixelFormat format, Size size) {
  auto picture =
      PixelBuffer::create(format, static_cast<std::size_t>(size.width), static_cast<std::size_t>(size.height));
  for (std::size_t index = 0; index < picture->planeCount(); ++index) {
    const auto bytes = noise(picture->plane(index).bytesPerRow * picture->plane(index).height);
    std::memcpy(picture->plane(index).base, bytes.data(), bytes.size());
  }
  return picture;
}

/// Runs `step` again and again on the queue, with nothing left to draw after each.
template <typename Step>
void measure(benchmark::State& state, Step step) {
  runSynchronouslyOnVideoProcessingQueue([&] {
    GPUImageContext::useImageProcessingContext();
    step();
    glFinish();
    for ([[maybe_unused]] auto iteration : state) {
      step();
      glFinish();
    }
  });
}

std::shared_ptr<GPUImageFramebuffer> framebufferOf(Size size) {
  return GPUImageContext::sharedFramebufferCache()->fetchFramebufferForSize(size, false);
}

/// Gives `filter` a frame as a source does, whose last hold it is.
void feed(GPUImageInput& filter, std::size_t index, Size size) {
  const auto input = framebufferOf(size);
  filter.setInputSize(size, index);
  filter.setInputFramebuffer(input, index);
  input->unlock();
  filter.newFrameReadyAtTime(MediaTime::make(0, 1), index);
}

Size sizeOf(const benchmark::State& state) { return kSizes[static_cast<std::size_t>(state.range(0))]; }

void sizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("1080p")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
}

void gpuUploadNV12(benchmark::State& state) {
  const auto picture = noisePicture(PixelFormat::BiPlanarFullRange, sizeOf(state));
  measure(state, [&] {
    auto& cache = *GPUImageContext::sharedImageProcessingContext().coreVideoTextureCache();
    benchmark::DoNotOptimize(
        cache.makeTexture(*picture, 0, {GL_LUMINANCE, picture->width(), picture->height(), GL_LUMINANCE}));
    benchmark::DoNotOptimize(cache.makeTexture(
        *picture, 1, {GL_LUMINANCE_ALPHA, picture->width() / 2, picture->height() / 2, GL_LUMINANCE_ALPHA}));
  });
}
BENCHMARK(gpuUploadNV12)->Apply(sizes);

void gpuUploadBGRA(benchmark::State& state) {
  const auto picture = noisePicture(PixelFormat::BGRA, sizeOf(state));
  measure(state, [&] {
    auto& cache = *GPUImageContext::sharedImageProcessingContext().coreVideoTextureCache();
    benchmark::DoNotOptimize(cache.makeTexture(*picture, 0, {.width = picture->width(), .height = picture->height()}));
  });
}
BENCHMARK(gpuUploadBGRA)->Apply(sizes);

void gpuUploadAndConvertNV12(benchmark::State& state) {
  const auto picture = noisePicture(PixelFormat::BiPlanarFullRange, sizeOf(state));
  const auto camera = test::fakeVideoCamera(PixelFormat::BiPlanarFullRange);
  measure(state, [&] { camera->processVideoSampleBuffer({picture, MediaTime::make(0, 1)}); });
}
BENCHMARK(gpuUploadAndConvertNV12)->Apply(sizes);

void gpuPassThrough(benchmark::State& state, bool drawn) {
  const auto filter = GPUImageFilter::create();
  if (drawn) {
    // A filter with a uniform of its own is taken to draw something of its own.
    filter->setFloat(0, "unused");
  }
  measure(state, [&] { feed(*filter, 0, sizeOf(state)); });
}
BENCHMARK_CAPTURE(gpuPassThrough, drawn, true)->Apply(sizes);
BENCHMARK_CAPTURE(gpuPassThrough, handedOn, false)->Apply(sizes);

void gpuBlend(benchmark::State& state) {
  const auto filter = GPUImageAlphaBlendFilter::create();
  measure(state, [&] {
    feed(*filter, 0, sizeOf(state));
    feed(*filter, 1, sizeOf(state));
  });
}
BENCHMARK(gpuBlend)->Apply(sizes);

void gpuReadBack(benchmark::State& state) {
  const auto framebuffer = framebufferOf(sizeOf(state));
  measure(state, [&] {
    framebuffer->activateFramebuffer();
    benchmark::DoNotOptimize(framebuffer->pixelBuffer());
  });
  framebuffer->unlock();
}
BENCHMARK(gpuReadBack)->Apply(sizes);

/// From the camera's picture, 1280 x 720, to the picture that the session gets.
void gpuCameraChain(benchmark::State& state) {
  struct Receiver : ZelLiveVideoCaptureDelegate {
    void videoCaptureOutputPixelBuffer(ZelLiveVideoCapture*, std::shared_ptr<PixelBuffer> pixelBuffer) override {
      benchmark::DoNotOptimize(pixelBuffer);
    }
  };
  auto platform = std::make_shared<Platform>(*defaultPlatform());
  platform->cameras = std::make_shared<test::FakeCameras>();
  const auto capture = ZelLiveVideoCapture::create(
      ZelLiveVideoConfiguration::defaultConfigurationForQuality(ZelLiveVideoQualityMedium), platform);
  const auto receiver = std::make_shared<Receiver>();
  capture->setDelegate(receiver);
  capture->setRunning(true);
  const CaptureSampleBuffer sample{noisePicture(PixelFormat::BiPlanarFullRange, kSizes[0]), MediaTime::make(0, 1)};
  measure(state, [&] { capture->videoCamera()->processVideoSampleBuffer(sample); });
}
BENCHMARK(gpuCameraChain)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();

/// A frame in a preview of that part of its size, and the picture that a window is given.
void gpuPreview(benchmark::State& state, double part) {
  const auto size = sizeOf(state);
  const auto view = GPUImageView::create({0, 0, size.width * part, size.height * part});
  const auto frame = framebufferOf(size);
  measure(state, [&] {
    frame->activateFramebuffer();
    view->setInputSize(size, 0);
    view->setInputFramebuffer(frame, 0);
    view->newFrameReadyAtTime(MediaTime::make(0, 1), 0);
    benchmark::DoNotOptimize(view->picture());
  });
  frame->unlock();
}
BENCHMARK_CAPTURE(gpuPreview, half, 0.5)->Apply(sizes);
BENCHMARK_CAPTURE(gpuPreview, whole, 1)->Apply(sizes);

/// What a window's thread then does, up to what the window system is given: a preview and a mark that lets it through.
void gpuPreviewCompose(benchmark::State& state) {
  const auto size = sizeOf(state);
  const Rect all{0, 0, size.width, size.height};
  const auto content = std::make_shared<View>(all);
  const auto mark = std::make_shared<View>(Rect{20, 20, 200, 100});
  mark->setBackgroundColor({1, 1, 1, 0.5});
  content->addSubview(std::make_shared<ImageView>(all, noisePicture(PixelFormat::BGRA, size)));
  content->addSubview(mark);
  const auto picture = noisePicture(PixelFormat::BGRA, size);
  for ([[maybe_unused]] auto iteration : state) {
    renderView(*content, *picture);
  }
}
BENCHMARK(gpuPreviewCompose)->Apply(sizes);

/// A picture of 4:3 as high as the output, drawn into it and read back by the renderer on its own queue.
void gpuFit(benchmark::State& state, PixelFormat format) {
  struct Waiter : ZelLivePixelBufferFitSizeDelegate {
    void filterPixelBuffer(ZelLivePixelBufferFitSizeFilter&, std::shared_ptr<PixelBuffer>, double) override {
      fitted.release();
    }
    std::binary_semaphore fitted{0};
  };
  const auto waiter = std::make_shared<Waiter>();
  const auto renderer = ZelLivePixelBufferFitSizeFilter::create(sizeOf(state));
  renderer->setDelegate(waiter);
  const auto picture = noisePicture(format, {sizeOf(state).height * 4 / 3, sizeOf(state).height});
  const auto fit = [&] {
    renderer->renderPixelBuffer(picture, 0);
    waiter->fitted.acquire();
  };
  fit();
  for ([[maybe_unused]] auto iteration : state) {
    fit();
  }
}
BENCHMARK_CAPTURE(gpuFit, BGRA, PixelFormat::BGRA)->Apply(sizes);
BENCHMARK_CAPTURE(gpuFit, NV12, PixelFormat::BiPlanarFullRange)->Apply(sizes);

/// The bare copy of the same bytes, into memory of a pool as well.
void gpuReadBackPeerCopy(benchmark::State& state) {
  const auto picture = noisePicture(PixelFormat::BGRA, sizeOf(state));
  const auto pool = PixelBufferPool::create(PixelFormat::BGRA, picture->width(), picture->height());
  measure(state, [&] {
    const auto copy = pool->acquire();
    std::memcpy(copy->plane(0).base, picture->plane(0).base, picture->plane(0).bytesPerRow * picture->height());
    benchmark::ClobberMemory();
  });
}
BENCHMARK(gpuReadBackPeerCopy)->Apply(sizes);

}  // namespace
}  // namespace zellive::bench
