#include "tests/gpu/GpuTest.h"

#include <GLES2/gl2.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <utility>

#include "tests/support/AlteredQueues.h"

namespace {

std::atomic<std::uint64_t> glObjects = 0;
std::atomic<std::uint64_t> textureStorages = 0;
std::atomic<std::uint64_t> draws = 0;
std::atomic<std::uint64_t> reads = 0;
std::atomic<std::uint64_t> allocations = 0;

void* allocate(std::size_t size, std::size_t alignment) {
  ++allocations;
  return alignment <= alignof(std::max_align_t)
             ? std::malloc(size)
             : std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment);
}

void* allocateOrThrow(std::size_t size, std::size_t alignment) {
  void* const memory = allocate(size, alignment);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size, 1); }
void* operator new(std::size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocate(size, 1); }
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

// The library's calls come here, because a program's own functions go before those of its libraries.
#define COUNTED(result, name, counter, count, parameters, arguments)                      \
  extern "C" result name parameters {                                                     \
    static auto* const real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name)); \
    counter += static_cast<std::uint64_t>(count);                                         \
    return real arguments;                                                                \
  }
COUNTED(void, glGenTextures, glObjects, n, (GLsizei n, GLuint* names), (n, names))
COUNTED(void, glGenFramebuffers, glObjects, n, (GLsizei n, GLuint* names), (n, names))
COUNTED(GLuint, glCreateProgram, glObjects, 1, (), ())
COUNTED(void, glDrawArrays, draws, 1, (GLenum mode, GLint first, GLsizei n), (mode, first, n))
COUNTED(void, glTexImage2D, textureStorages, 1,
        (GLenum target, GLint level, GLint inside, GLsizei w, GLsizei h, GLint border, GLenum format, GLenum type,
         const void* pixels),
        (target, level, inside, w, h, border, format, type, pixels))
COUNTED(void, glReadPixels, reads, 1,
        (GLint x, GLint y, GLsizei w, GLsizei h, GLenum format, GLenum type, void* pixels),
        (x, y, w, h, format, type, pixels))

extern "C" const GLubyte* glGetString(GLenum name) {
  static auto* const real = reinterpret_cast<decltype(&glGetString)>(dlsym(RTLD_NEXT, "glGetString"));
  const bool plain = zellive::test::GpuPlatform::plainDriver && name != GL_VENDOR && name != GL_RENDERER;
  const char* const text = name == GL_VERSION ? "OpenGL ES 2.0" : "";
  return plain ? reinterpret_cast<const GLubyte*>(text) : real(name);
}

namespace zellive::test {

Counts counted() { return {glObjects, textureStorages, draws, reads, allocations}; }

namespace {

class LosableContext : public GraphicsContext {
 public:
  explicit LosableContext(std::shared_ptr<GraphicsContext> context) : context_(std::move(context)) {}
  bool makeCurrent() override {
    if (GpuPlatform::contextLost) {
      context_->clearCurrent();
      return false;
    }
    return context_->makeCurrent();
  }
  [[nodiscard]] bool isCurrent() const override { return context_->isCurrent(); }
  void clearCurrent() override { context_->clearCurrent(); }
  void presentRenderbuffer() override { context_->presentRenderbuffer(); }
  std::unique_ptr<TextureCache> makeTextureCache() override { return context_->makeTextureCache(); }

 private:
  const std::shared_ptr<GraphicsContext> context_;
};

class LosableGraphics : public GraphicsService {
 public:
  std::shared_ptr<GraphicsContext> makeContext(GraphicsAPI api, const std::shared_ptr<GraphicsContext>&) override {
    auto context = defaultPlatform()->graphics->makeContext(api);
    return context ? std::make_shared<LosableContext>(std::move(context)) : nullptr;
  }
};

class GpuEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    auto platform = std::make_shared<Platform>(*defaultPlatform());
    platform->queues = std::make_shared<AlteredQueues>([](const std::string&, std::chrono::nanoseconds delay) {
      GpuPlatform::lastLimit = delay;
      return std::chrono::nanoseconds(0);
    });
    platform->graphics = std::make_shared<LosableGraphics>();
    ASSERT_TRUE(GPUImageContext::setSharedPlatform(std::move(platform)));
  }
};
const auto* const environment = testing::AddGlobalTestEnvironment(new GpuEnvironment);

}  // namespace
}  // namespace zellive::test
