#include "zellive/platform/PixelBuffer.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <set>
#include <thread>
#include <utility>
#include <vector>

namespace zellive {
namespace {

constexpr auto kMaxSize = std::numeric_limits<std::size_t>::max();
constexpr PixelFormat kFormats[] = {PixelFormat::BiPlanarFullRange, PixelFormat::BiPlanarVideoRange,
                                    PixelFormat::Planar, PixelFormat::BGRA};

std::size_t bytesPerSample(const PixelBuffer& picture, std::size_t plane) {
  return picture.format() == PixelFormat::BGRA ? 4 : picture.planeCount() == 2 && plane == 1 ? 2 : 1;
}

/// Writes every byte of every plane, so that a sanitizer sees memory that is too small, and reads them again, so that
/// planes that overlap show.
void expectOwnMemory(const PixelBuffer& picture) {
  for (std::size_t i = 0; i < picture.planeCount(); ++i) {
    const auto& plane = picture.plane(i);
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(plane.base) % 64, 0U);
    ASSERT_EQ(plane.bytesPerRow % 64, 0U);
    ASSERT_GE(plane.bytesPerRow, plane.width * bytesPerSample(picture, i));
    std::memset(plane.base, static_cast<int>(i + 1), plane.bytesPerRow * plane.height);
  }
  for (std::size_t i = 0; i < picture.planeCount(); ++i) {
    const auto& plane = picture.plane(i);
    ASSERT_EQ(plane.base[0], i + 1);
    ASSERT_EQ(plane.base[plane.bytesPerRow * plane.height - 1], i + 1);
  }
}

TEST(PixelBuffer, OwnPicturesHaveTheShapeOfTheirFormat) {
  const struct {
    std::size_t width, height, chromaWidth, chromaHeight;
  } sizes[] = {{1, 1, 1, 1},         {2, 2, 1, 1},          {3, 5, 2, 3},
               {641, 359, 321, 180}, {1280, 720, 640, 360}, {16384, 1, 8192, 1}};
  for (const auto format : kFormats) {
    for (const auto& size : sizes) {
      const auto picture = PixelBuffer::create(format, size.width, size.height);
      ASSERT_NE(picture, nullptr);
      EXPECT_EQ(picture->format(), format);
      EXPECT_EQ(picture->width(), size.width);
      EXPECT_EQ(picture->height(), size.height);
      EXPECT_TRUE(picture->shareable());
      ASSERT_EQ(picture->planeCount(), format == PixelFormat::BGRA ? 1U : format == PixelFormat::Planar ? 3U : 2U);
      for (std::size_t i = 0; i < picture->planeCount(); ++i) {
        EXPECT_EQ(picture->plane(i).width, i == 0 ? size.width : size.chromaWidth);
        EXPECT_EQ(picture->plane(i).height, i == 0 ? size.height : size.chromaHeight);
      }
      expectOwnMemory(*picture);
    }
  }
}

TEST(PixelBuffer, ImpossibleSizesAndFormatsAreRefused) {
  for (const auto format : kFormats) {
    for (const auto& [width, height] : std::vector<std::pair<std::size_t, std::size_t>>{
             {0, 0}, {0, 720}, {1280, 0}, {16385, 1}, {1, 16385}, {kMaxSize, 1}, {kMaxSize, kMaxSize}}) {
      EXPECT_EQ(PixelBuffer::create(format, width, height), nullptr) << width << "x" << height;
      EXPECT_EQ(PixelBufferPool::create(format, width, height), nullptr) << width << "x" << height;
    }
  }
  EXPECT_EQ(PixelBuffer::create(static_cast<PixelFormat>(1), 16, 16), nullptr);
  EXPECT_EQ(PixelBufferPool::create(static_cast<PixelFormat>(1), 16, 16), nullptr);
}

TEST(PixelBuffer, WrappedMemoryIsUsedInPlaceAndReleasedOnce) {
  std::vector<std::uint8_t> memory(1000);
  int released = 0;
  auto picture = PixelBuffer::wrap(PixelFormat::BiPlanarFullRange, 15, 9, {memory.data(), memory.data() + 500, nullptr},
                                   {17, 16, 0}, [&] { ++released; });
  ASSERT_NE(picture, nullptr);
  EXPECT_EQ(picture->plane(0).base, memory.data());
  EXPECT_EQ(picture->plane(0).bytesPerRow, 17U);
  EXPECT_EQ(picture->plane(1).width, 8U);
  EXPECT_EQ(picture->plane(1).height, 5U);
  EXPECT_FALSE(picture->shareable());
  auto second = picture;
  picture.reset();
  EXPECT_EQ(released, 0);
  second.reset();
  EXPECT_EQ(released, 1);
}

TEST(PixelBuffer, CroppedPictureSharesMemoryAndKeepsItAlive) {
  for (const auto format : kFormats) {
    auto whole = PixelBuffer::create(format, 64, 48);
    const std::weak_ptr<PixelBuffer> watched = whole;
    const auto* memory = whole->plane(0).base;
    int released = 0;
    auto part = PixelBuffer::crop(std::move(whole), 62, 40, [&] {
      EXPECT_FALSE(watched.expired()) << "released after the memory went";
      ++released;
    });
    ASSERT_TRUE(part);
    EXPECT_EQ(part->plane(0).base, memory);
    EXPECT_EQ(part->plane(0).height, 40U);
    EXPECT_TRUE(part->shareable());
    part.reset();
    EXPECT_EQ(released, 1);
    EXPECT_TRUE(watched.expired());

    EXPECT_FALSE(PixelBuffer::crop(PixelBuffer::create(format, 8, 8), 9, 8, [&] { ++released; }));
    EXPECT_FALSE(PixelBuffer::crop(PixelBuffer::create(format, 8, 8), 8, 0, [&] { ++released; }));
    EXPECT_FALSE(PixelBuffer::crop(nullptr, 8, 8, [&] { ++released; }));
    EXPECT_EQ(released, 4);
  }
}

TEST(PixelBuffer, WrapRefusesRowsThatCannotHoldThePictureAndReleasesThem) {
  std::uint8_t byte = 0;
  auto* const base = &byte;
  using F = PixelFormat;
  const struct {
    F format;
    std::size_t width, height;
    std::array<std::uint8_t*, 3> bases;
    std::array<std::size_t, 3> rows;
    bool accepted;
  } cases[] = {
      {F::BGRA, 16, 16, {base}, {64}, true},
      {F::BGRA, 16, 16, {base}, {63}, false},
      {F::BGRA, 16, 16, {nullptr}, {64}, false},
      {F::BGRA, 0, 0, {base}, {0}, true},
      {F::BGRA, kMaxSize, 1, {base}, {kMaxSize}, false},
      {F::BGRA, kMaxSize / 4 + 1, 1, {base}, {64}, false},
      {F::BGRA, 16, kMaxSize, {base}, {64}, false},
      {F::BiPlanarVideoRange, 15, 15, {base, base}, {15, 16}, true},
      {F::BiPlanarVideoRange, 15, 15, {base, base}, {15, 15}, false},
      {F::BiPlanarVideoRange, 15, 15, {base, nullptr}, {15, 16}, false},
      {F::BiPlanarVideoRange, kMaxSize, kMaxSize, {base, base}, {kMaxSize, kMaxSize}, false},
      {F::Planar, 15, 15, {base, base, base}, {15, 8, 8}, true},
      {F::Planar, 15, 15, {base, base, base}, {15, 8, 7}, false},
      {F::Planar, 15, 15, {base, base, nullptr}, {15, 8, 8}, false},
      {static_cast<F>(0), 15, 15, {base, base, base}, {64, 64, 64}, false},
  };
  for (const auto& test : cases) {
    int released = 0;
    auto picture = PixelBuffer::wrap(test.format, test.width, test.height, test.bases, test.rows, [&] { ++released; });
    EXPECT_EQ(picture != nullptr, test.accepted) << test.width << "x" << test.height;
    EXPECT_EQ(released, test.accepted ? 0 : 1);
    picture.reset();
    EXPECT_EQ(released, 1);
  }
}

TEST(PixelBufferPool, ReusesWhatWasGivenBack) {
  const auto pool = PixelBufferPool::create(PixelFormat::Planar, 33, 17);
  ASSERT_NE(pool, nullptr);
  std::set<const std::uint8_t*> places;
  for (int i = 0; i < 10; ++i) {
    const auto first = pool->acquire();
    const auto second = pool->acquire();
    ASSERT_NE(first->plane(0).base, second->plane(0).base);
    EXPECT_EQ(first->colorMatrix(), ColorMatrix::Unspecified);
    EXPECT_TRUE(first->shareable());
    expectOwnMemory(*first);
    places.insert({first->plane(0).base, second->plane(0).base});
    first->setColorMatrix(ColorMatrix::BT709);
    second->setColorMatrix(ColorMatrix::BT601);
  }
  EXPECT_EQ(places.size(), 2U);
  EXPECT_EQ(pool->allocated(), 2U);
}

TEST(PixelBufferPool, WeaklyHeldPictureIsNotReusedUnderItsObserver) {
  const auto pool = PixelBufferPool::create(PixelFormat::BGRA, 16, 16);
  auto picture = pool->acquire();
  std::weak_ptr<PixelBuffer> observer = picture;
  picture.reset();
  picture = pool->acquire();
  EXPECT_TRUE(observer.expired());
  EXPECT_EQ(pool->allocated(), 2U);
  observer.reset();
  const auto third = pool->acquire();
  EXPECT_EQ(pool->allocated(), 2U);
}

TEST(PixelBufferPool, PicturesOutliveTheirPool) {
  auto pool = PixelBufferPool::create(PixelFormat::BGRA, 640, 480);
  auto picture = pool->acquire();
  const auto returned = pool->acquire();
  pool.reset();
  expectOwnMemory(*picture);
  picture.reset();
  expectOwnMemory(*returned);
}

TEST(PixelBufferPool, ThreadsShareItAndItMayGoMeanwhile) {
  auto pool = PixelBufferPool::create(PixelFormat::BGRA, 16, 16);
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([pool] {
      std::vector<std::shared_ptr<PixelBuffer>> held;
      for (int j = 0; j < 3000; ++j) {
        held.push_back(pool->acquire());
        held.back()->plane(0).base[0] = static_cast<std::uint8_t>(j);
        if (held.size() == 4) {
          held.clear();
        }
      }
    });
  }
  EXPECT_LE(pool->allocated(), 12U);
  pool.reset();
  for (auto& thread : threads) {
    thread.join();
  }
}

}  // namespace
}  // namespace zellive
