#include "zellive/gpu/GPUImageContext.h"

#include <GLES2/gl2.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <optional>
#include <set>
#include <shared_mutex>
#include <utility>
#include <vector>

#include "zellive/gpu/GPUImageFramebufferCache.h"

namespace zellive {
namespace {

constexpr char kQueueLabel[] = "com.brackenvale.GPUImage.openGLESContextQueue";

/// The queues of all contexts that exist.
class ContextQueues {
 public:
  static ContextQueues& instance() {
    static auto* const queues = new ContextQueues;
    return *queues;
  }
  void add(const Queue* queue) {
    const std::lock_guard lock(mutex_);
    queues_.push_back(queue);
  }
  void remove(const Queue* queue) {
    const std::lock_guard lock(mutex_);
    std::erase(queues_, queue);
  }
  [[nodiscard]] bool haveCurrent() {
    const std::shared_lock lock(mutex_);
    return std::any_of(queues_.begin(), queues_.end(), [](const Queue* queue) { return queue->isCurrent(); });
  }

 private:
  std::shared_mutex mutex_;
  std::vector<const Queue*> queues_;
};

/// The shared instance, and what it is to be made with.
struct SharedContext {
  std::mutex mutex;
  std::shared_ptr<const Platform> platform;
  std::atomic<GPUImageContext*> instance = nullptr;

  static SharedContext& get() {
    // Never destroyed: filters of the application may use it while the process exits.
    static auto* const shared = new SharedContext;
    return *shared;
  }
};

/// Once the driver is there, so that this comes before its own end.
void endAtExit() {
  static const int registered = std::atexit([] { GPUImageContext::sharedImageProcessingContext().end(); });
  (void)registered;
}

/// Reads a limit on the queue, without a lock that a task of the queue might want meanwhile.
std::int32_t limit(std::uint32_t parameter, std::atomic<std::int32_t>& known) {
  if (known == 0) {
    runSynchronouslyOnVideoProcessingQueue([&] {
      GPUImageContext::useImageProcessingContext();
      GLint value = 0;
      glGetIntegerv(parameter, &value);
      known = value;
    });
  }
  return known;
}

using Extensions = std::set<std::string, std::less<>>;

Extensions readExtensions() {
  Extensions names;
  GPUImageContext::useImageProcessingContext();
  const auto* text = reinterpret_cast<const char*>(glGetString(GL_EXTENSIONS));
  std::string_view rest = text != nullptr ? text : "";
  while (!rest.empty()) {
    const auto end = std::min(rest.find(' '), rest.size());
    names.emplace(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return names;
}

}  // namespace

bool isOnContextQueue() { return ContextQueues::instance().haveCurrent(); }

GPUImageContext::GPUImageContext(std::shared_ptr<const Platform> platform)
    : platform_(std::move(platform)), contextQueue_(platform_->queues->makeSerialQueue(kQueueLabel)) {
  ContextQueues::instance().add(contextQueue_.get());
}

GPUImageContext::~GPUImageContext() {
  runSynchronouslyOnContextQueue(*this, [this] {
    shaderProgramCache_.clear();
    currentShaderProgram_.reset();
    std::shared_ptr<GraphicsContext> context;
    {
      const std::lock_guard lock(mutex_);
      context = context_;
    }
    if (context) {
      context->makeCurrent();
      coreVideoTextureCache_.reset();
      context->clearCurrent();
    }
  });
  ContextQueues::instance().remove(contextQueue_.get());
}

GPUImageContext& GPUImageContext::sharedImageProcessingContext() {
  auto& shared = SharedContext::get();
  auto* instance = shared.instance.load(std::memory_order_acquire);
  if (instance == nullptr) {
    const std::lock_guard lock(shared.mutex);
    instance = shared.instance.load(std::memory_order_relaxed);
    if (instance == nullptr) {
      instance = new GPUImageContext(shared.platform ? shared.platform : defaultPlatform());
      shared.instance.store(instance, std::memory_order_release);
    }
  }
  return *instance;
}

bool GPUImageContext::setSharedPlatform(std::shared_ptr<const Platform> platform) {
  auto& shared = SharedContext::get();
  const std::lock_guard lock(shared.mutex);
  if (shared.instance.load(std::memory_order_relaxed) != nullptr) {
    return false;
  }
  shared.platform = std::move(platform);
  return true;
}

const void* GPUImageContext::contextKey() {
  static const void* key = &key;
  return key;
}

std::shared_ptr<Queue> GPUImageContext::sharedContextQueue() { return sharedImageProcessingContext().contextQueue_; }

std::shared_ptr<GPUImageFramebufferCache> GPUImageContext::sharedFramebufferCache() {
  return sharedImageProcessingContext().framebufferCache();
}

void GPUImageContext::useImageProcessingContext() { sharedImageProcessingContext().useAsCurrentContext(); }

void GPUImageContext::setActiveShaderProgram(const std::shared_ptr<GLProgram>& program) {
  sharedImageProcessingContext().setContextShaderProgram(program);
}

void GPUImageContext::finishDrawing() {
  runSynchronouslyOnVideoProcessingQueue([] {
    useImageProcessingContext();
    glFinish();
  });
}

std::int32_t GPUImageContext::maximumTextureSizeForThisDevice() {
  static std::atomic<std::int32_t> known = 0;
  return limit(GL_MAX_TEXTURE_SIZE, known);
}

std::int32_t GPUImageContext::maximumTextureUnitsForThisDevice() {
  static std::atomic<std::int32_t> known = 0;
  return limit(GL_MAX_TEXTURE_IMAGE_UNITS, known);
}

std::int32_t GPUImageContext::maximumVaryingVectorsForThisDevice() {
  static std::atomic<std::int32_t> known = 0;
  return limit(GL_MAX_VARYING_VECTORS, known);
}

bool GPUImageContext::deviceSupportsOpenGLESExtension(std::string_view extension) {
  static std::atomic<const Extensions*> known = nullptr;
  const Extensions* names = known.load(std::memory_order_acquire);
  if (names == nullptr) {
    runSynchronouslyOnVideoProcessingQueue([&] {
      names = known.load(std::memory_order_acquire);
      if (names == nullptr) {
        names = new Extensions(readExtensions());
        known.store(names, std::memory_order_release);
      }
    });
  }
  return names->contains(extension);
}

bool GPUImageContext::deviceSupportsRedTextures() { return deviceSupportsOpenGLESExtension("GL_EXT_texture_rg"); }

bool GPUImageContext::deviceSupportsFramebufferReads() {
  return deviceSupportsOpenGLESExtension("GL_EXT_shader_framebuffer_fetch");
}

Size GPUImageContext::sizeThatFitsWithinATextureForSize(Size size) {
  const double largest = maximumTextureSizeForThisDevice();
  if (largest <= 0 || (size.width < largest && size.height < largest)) {
    return size;
  }
  return size.width > size.height ? Size{largest, size.height * largest / size.width}
                                  : Size{size.width * largest / size.height, largest};
}

void GPUImageContext::useAsCurrentContext() {
  if (const auto current = context()) {
    current->makeCurrent();
  }
}

void GPUImageContext::setContextShaderProgram(const std::shared_ptr<GLProgram>& program) {
  useAsCurrentContext();
  if (program != currentShaderProgram_) {
    currentShaderProgram_ = program;
    if (program) {
      program->use();
    }
  }
}

void GPUImageContext::presentBufferForDisplay() {
  if (const auto current = context()) {
    current->presentRenderbuffer();
  }
}

std::shared_ptr<GLProgram> GPUImageContext::programForVertexShaderString(const std::string& vertexShader,
                                                                         const std::string& fragmentShader) {
  auto key = "V: " + vertexShader + " - F: " + fragmentShader;
  if (const auto found = shaderProgramCache_.find(key); found != shaderProgramCache_.end()) {
    return found->second;
  }
  // The last owner may be a filter on any thread; the program belongs to the context.
  const auto deleteOnQueue = [queue = contextQueue_, owner = context()](GLProgram* program) {
    const auto destroy = [owner, program] {
      if (owner) {
        owner->makeCurrent();
      }
      delete program;
    };
    queue->isCurrent() ? destroy() : queue->async(destroy);
  };
  std::shared_ptr<GLProgram> program(new GLProgram(vertexShader, fragmentShader), deleteOnQueue);
  shaderProgramCache_.emplace(std::move(key), program);
  return program;
}

void GPUImageContext::useSharegroup(std::shared_ptr<GraphicsContext> sharegroup) {
  const std::lock_guard lock(mutex_);
  sharegroup_ = std::move(sharegroup);
}

std::shared_ptr<GraphicsContext> GPUImageContext::createContext() const {
  std::shared_ptr<GraphicsContext> sharegroup;
  {
    const std::lock_guard lock(mutex_);
    sharegroup = sharegroup_;
  }
  return platform_->graphics->makeContext(GraphicsAPI::OpenGLES2, sharegroup);
}

std::shared_ptr<GraphicsContext> GPUImageContext::context() {
  {
    const std::lock_guard lock(mutex_);
    if (contextTried_) {
      return context_;
    }
  }
  // Current on the queue's thread, where it is used, and on no other.
  runSynchronouslyOnContextQueue(*this, [this] {
    const auto made = createContext();
    {
      const std::lock_guard lock(mutex_);
      if (std::exchange(contextTried_, true)) {
        return;
      }
      context_ = made;
    }
    if (made) {
      made->makeCurrent();
      glDisable(GL_DEPTH_TEST);
      if (this == SharedContext::get().instance.load()) {
        endAtExit();
      }
    }
  });
  const std::lock_guard lock(mutex_);
  return context_;
}

void GPUImageContext::end() {
  if (ended_.exchange(true) || contextQueue_->isCurrent()) {
    return;
  }
  // What runs there may wait for the very thread that waits here: hence the limit.
  const auto done = std::make_shared<std::promise<void>>();
  contextQueue_->async([done] {
    glFinish();
    done->set_value();
  });
  (void)done->get_future().wait_for(std::chrono::seconds(1));
}

TextureCache* GPUImageContext::coreVideoTextureCache() {
  if (!coreVideoTextureCache_) {
    if (const auto current = context(); current && current->makeCurrent()) {
      coreVideoTextureCache_ = current->makeTextureCache();
    }
  }
  return coreVideoTextureCache_.get();
}

std::shared_ptr<GPUImageFramebufferCache> GPUImageContext::framebufferCache() {
  const std::lock_guard lock(mutex_);
  if (!framebufferCache_) {
    framebufferCache_ = GPUImageFramebufferCache::create(platform_->notifications);
  }
  return framebufferCache_;
}

void GPUImageContext::releaseContext() {
  runSynchronouslyOnContextQueue(*this, [this] {
    useAsCurrentContext();
    shaderProgramCache_.clear();
    std::shared_ptr<GPUImageFramebufferCache> former;
    {
      const std::lock_guard lock(mutex_);
      former.swap(framebufferCache_);
    }
    if (former) {
      former->purgeAllUnassignedFramebuffers();
    }
  });
}

}  // namespace zellive
