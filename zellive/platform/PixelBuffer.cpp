#include "zellive/platform/PixelBuffer.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace zellive {
namespace {

constexpr std::size_t kLargestSide = 16384;
constexpr std::size_t kAlignment = 64;

struct PlaneShape {
  std::size_t width = 0;
  std::size_t height = 0;
  std::size_t bytesPerSample = 0;
};

struct Shape {
  std::size_t planeCount = 0;  // 0 for a format that does not exist.
  std::array<PlaneShape, 3> planes{};
};

Shape shapeOf(PixelFormat format, std::size_t width, std::size_t height) {
  const PlaneShape chroma{width / 2 + width % 2, height / 2 + height % 2, 1};
  switch (format) {
    case PixelFormat::BiPlanarFullRange:
    case PixelFormat::BiPlanarVideoRange:
      return {2, {{{width, height, 1}, {chroma.width, chroma.height, 2}, {}}}};
    case PixelFormat::Planar:
      return {3, {{{width, height, 1}, chroma, chroma}}};
    case PixelFormat::BGRA:
      return {1, {{{width, height, 4}, {}, {}}}};
  }
  return {};
}

bool acceptable(PixelFormat format, std::size_t width, std::size_t height) {
  return width > 0 && height > 0 && width <= kLargestSide && height <= kLargestSide &&
         shapeOf(format, width, height).planeCount > 0;
}

std::size_t alignedRow(const PlaneShape& plane) {
  return (plane.width * plane.bytesPerSample + kAlignment - 1) / kAlignment * kAlignment;
}

/// Whether rows of this length hold the plane and the plane's end can be addressed at all.
bool rowsFit(const PlaneShape& plane, std::size_t bytesPerRow) {
  const auto addressable = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
  return bytesPerRow / plane.bytesPerSample >= plane.width &&
         (plane.height == 0 || bytesPerRow <= addressable / plane.height);
}

}  // namespace

std::shared_ptr<PixelBuffer> PixelBuffer::create(PixelFormat format, std::size_t width, std::size_t height) {
  if (!acceptable(format, width, height)) {
    return nullptr;
  }
  std::unique_ptr<PixelBuffer> picture(new PixelBuffer);
  if (!picture->allocate(format, width, height)) {
    return nullptr;
  }
  return picture;
}

bool PixelBuffer::allocate(PixelFormat format, std::size_t width, std::size_t height) {
  const Shape shape = shapeOf(format, width, height);
  std::size_t size = 0;
  std::array<std::size_t, 3> offsets{};
  for (std::size_t i = 0; i < shape.planeCount; ++i) {
    const PlaneShape& plane = shape.planes[i];
    const std::size_t bytesPerRow = alignedRow(plane);
    planes_[i] = {nullptr, bytesPerRow, plane.width, plane.height};
    offsets[i] = size;
    size += bytesPerRow * plane.height;
  }
  auto* memory = static_cast<std::uint8_t*>(::operator new(size, std::align_val_t(kAlignment), std::nothrow));
  if (memory == nullptr) {
    return false;
  }
  release_ = [memory] { ::operator delete(memory, std::align_val_t(kAlignment)); };
  for (std::size_t i = 0; i < shape.planeCount; ++i) {
    planes_[i].base = memory + offsets[i];
  }
  format_ = format;
  width_ = width;
  height_ = height;
  planeCount_ = shape.planeCount;
  shareable_ = true;
  return true;
}

std::shared_ptr<PixelBuffer> PixelBuffer::wrap(PixelFormat format, std::size_t width, std::size_t height,
                                               const std::array<std::uint8_t*, 3>& bases,
                                               const std::array<std::size_t, 3>& bytesPerRow,
                                               std::function<void()> release) {
  std::unique_ptr<PixelBuffer> picture(new PixelBuffer);
  picture->release_ = std::move(release);
  const Shape shape = shapeOf(format, width, height);
  if (shape.planeCount == 0) {
    return nullptr;
  }
  for (std::size_t i = 0; i < shape.planeCount; ++i) {
    if (bases[i] == nullptr || !rowsFit(shape.planes[i], bytesPerRow[i])) {
      return nullptr;
    }
    picture->planes_[i] = {bases[i], bytesPerRow[i], shape.planes[i].width, shape.planes[i].height};
  }
  picture->format_ = format;
  picture->width_ = width;
  picture->height_ = height;
  picture->planeCount_ = shape.planeCount;
  return picture;
}

std::shared_ptr<PixelBuffer> PixelBuffer::crop(std::shared_ptr<PixelBuffer> whole, std::size_t width,
                                               std::size_t height, std::function<void()> release) {
  const bool fits = whole && width > 0 && height > 0 && width <= whole->width_ && height <= whole->height_;
  std::array<std::uint8_t*, 3> bases{};
  std::array<std::size_t, 3> bytesPerRow{};
  for (std::size_t i = 0; fits && i < whole->planeCount_; ++i) {
    bases[i] = whole->planes_[i].base;
    bytesPerRow[i] = whole->planes_[i].bytesPerRow;
  }
  // What `release` frees may be part of `whole`, so it goes first.
  auto releaseBoth = [whole, release = std::move(release)]() mutable {
    if (release) {
      release();
    }
    whole.reset();
  };
  if (!fits) {
    releaseBoth();
    return nullptr;
  }
  auto part = wrap(whole->format_, width, height, bases, bytesPerRow, std::move(releaseBoth));
  if (part) {
    part->shareable_ = whole->shareable_;
    part->colorMatrix_ = whole->colorMatrix_;
  }
  return part;
}

PixelBuffer::~PixelBuffer() {
  if (release_) {
    release_();
  }
}

/// Outlives the pool for as long as a picture of it exists.
struct PixelBufferPool::Shared {
  /// A picture together with the place for its reference counts, so that handing it out again allocates nothing.
  struct Slot {
    static constexpr std::size_t kCountsSize = 128;
    PixelBuffer picture;
    alignas(std::max_align_t) std::array<std::byte, kCountsSize> counts;
  };

  /// Places the reference counts into the slot. The slot is free again when they go, which is after the last strong and
  /// the last weak reference.
  template <typename T>
  struct SlotAllocator {
    using value_type = T;
    std::shared_ptr<Shared> shared;
    Slot* slot;

    SlotAllocator(std::shared_ptr<Shared> owner, Slot* place) : shared(std::move(owner)), slot(place) {}
    template <typename U>
    SlotAllocator(const SlotAllocator<U>& other) : shared(other.shared), slot(other.slot) {}

    T* allocate(std::size_t count) {
      static_assert(sizeof(T) <= Slot::kCountsSize && alignof(T) <= alignof(std::max_align_t));
      if (count != 1) {
        throw std::bad_alloc();
      }
      return reinterpret_cast<T*>(slot->counts.data());
    }
    void deallocate(T*, std::size_t) { shared->giveBack(slot); }
    template <typename U>
    bool operator==(const SlotAllocator<U>& other) const {
      return slot == other.slot;
    }
  };

  struct KeepPicture {
    void operator()(PixelBuffer*) const {}
  };

  void giveBack(Slot* slot) {
    {
      const std::lock_guard lock(mutex);
      if (open) {
        free.push_back(slot);
        return;
      }
    }
    delete slot;
  }

  PixelFormat format = PixelFormat::BGRA;
  std::size_t width = 0;
  std::size_t height = 0;
  mutable std::mutex mutex;
  bool open = true;
  std::size_t allocated = 0;
  std::vector<Slot*> free;
};

PixelBufferPool::PixelBufferPool() : shared_(std::make_shared<Shared>()) {}

std::shared_ptr<PixelBufferPool> PixelBufferPool::create(PixelFormat format, std::size_t width, std::size_t height) {
  if (!acceptable(format, width, height)) {
    return nullptr;
  }
  std::shared_ptr<PixelBufferPool> pool(new PixelBufferPool);
  pool->shared_->format = format;
  pool->shared_->width = width;
  pool->shared_->height = height;
  return pool;
}

PixelBufferPool::~PixelBufferPool() {
  std::vector<Shared::Slot*> unused;
  {
    const std::lock_guard lock(shared_->mutex);
    shared_->open = false;
    unused.swap(shared_->free);
  }
  for (auto* slot : unused) {
    delete slot;
  }
}

std::shared_ptr<PixelBuffer> PixelBufferPool::acquire() {
  Shared::Slot* slot = nullptr;
  {
    const std::lock_guard lock(shared_->mutex);
    if (!shared_->free.empty()) {
      slot = shared_->free.back();
      shared_->free.pop_back();
    }
  }
  if (slot == nullptr) {
    auto made = std::unique_ptr<Shared::Slot>(new (std::nothrow) Shared::Slot);
    if (!made || !made->picture.allocate(shared_->format, shared_->width, shared_->height)) {
      return nullptr;
    }
    const std::lock_guard lock(shared_->mutex);
    // Room for all of them, so that giving one back never allocates.
    shared_->free.reserve(++shared_->allocated);
    slot = made.release();
  }
  slot->picture.setColorMatrix(ColorMatrix::Unspecified);
  return std::shared_ptr<PixelBuffer>(&slot->picture, Shared::KeepPicture{},
                                      Shared::SlotAllocator<PixelBuffer>(shared_, slot));
}

PixelFormat PixelBufferPool::format() const noexcept { return shared_->format; }
std::size_t PixelBufferPool::width() const noexcept { return shared_->width; }
std::size_t PixelBufferPool::height() const noexcept { return shared_->height; }
std::size_t PixelBufferPool::bytesPerRow() const noexcept {
  return alignedRow(shapeOf(shared_->format, shared_->width, shared_->height).planes[0]);
}

std::size_t PixelBufferPool::allocated() const {
  const std::lock_guard lock(shared_->mutex);
  return shared_->allocated;
}

}  // namespace zellive
