#include "zellive/platform/PixelBuffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

namespace zellive {
namespace {

using enum PixelFormat;
constexpr std::size_t kMost = ~std::size_t{0};

/// Writes every byte of every plane, so that a sanitizer sees memory that is too small, and reads them again, so that
/// planes that overlap show.
void expectOwnMemory(const PixelBuffer& picture) {
  for (std::size_t i = 0; i < picture.planeCount(); ++i) {
    const auto& plane = picture.plane(i);
    const std::size_t sample = picture.format() == BGRA ? 4 : picture.planeCount() == 2 && i == 1 ? 2 : 1;
    ASSERT_TRUE(reinterpret_cast<std::uintptr_t>(plane.base) % 64 == 0 && plane.bytesPerRow % 64 == 0);
    ASSERT_GE(plane.bytesPerRow, plane.width * sample);
    std::memset(plane.base, static_cast<int>(i + 1), plane.bytesPerRow * plane.height);
  }
  for (std::size_t i = 0; i < picture.planeCount(); ++i) {
    const auto& plane = picture.plane(i);
    ASSERT_TRUE(plane.base[0] == i + 1 && plane.base[plane.bytesPerRow * plane.height - 1] == i + 1);
  }
}

TEST(PixelBuffer, OwnPicturesHaveTheShapeOfTheirFormat) {
  const std::size_t sizes[][4] = {{1, 1, 1, 1}, {3, 5, 2, 3}, {641, 359, 321, 180}, {16384, 1, 8192, 1}};
  for (const auto& [format, planes] : {std::pair{BiPlanarFullRange, 2U}, {Planar, 3U}, {BGRA, 1U}}) {
    for (const auto& [width, height, chromaWidth, chromaHeight] : sizes) {
      const auto picture = PixelBuffer::create(format, width, height);
      ASSERT_TRUE(picture && picture->format() == format && picture->shareable() && picture->planeCount() == planes);
      for (std::size_t i = 0; i < planes; ++i) {
        EXPECT_EQ(picture->plane(i).width, i == 0 ? width : chromaWidth);
        EXPECT_EQ(picture->plane(i).height, i == 0 ? height : chromaHeight);
      }
      expectOwnMemory(*picture);
    }
  }
  for (const auto& [width, height] :
       {std::pair{std::size_t{0}, std::size_t{720}}, {1280, 0}, {16385, 1}, {1, 16385}, {kMost, kMost}}) {
    EXPECT_EQ(PixelBuffer::create(Planar, width, height), nullptr) << width << "x" << height;
    EXPECT_EQ(PixelBufferPool::create(BGRA, width, height), nullptr) << width << "x" << height;
  }
  EXPECT_EQ(PixelBuffer::create(static_cast<PixelFormat>(1), 16, 16), nullptr);
}

TEST(PixelBuffer, CroppedPictureSharesMemoryAndKeepsItAlive) {
  for (const auto format : {BiPlanarFullRange, Planar, BGRA}) {
    auto whole = PixelBuffer::create(format, 64, 48);
    whole->setColorMatrix(ColorMatrix::BT709);
    const std::weak_ptr<PixelBuffer> watched = whole;
    const auto* memory = whole->plane(0).base;
    int released = 0;
    const auto release = [&] { ++released; };
    auto part = PixelBuffer::crop(std::move(whole), 62, 40, [&] {
      EXPECT_FALSE(watched.expired()) << "released after the memory went";
      release();
    });
    ASSERT_TRUE(part && part->plane(0).base == memory && part->plane(0).height == 40 && part->shareable());
    EXPECT_EQ(part->colorMatrix(), ColorMatrix::BT709);
    part.reset();
    EXPECT_TRUE(released == 1 && watched.expired());
    EXPECT_FALSE(PixelBuffer::crop(PixelBuffer::create(format, 8, 8), 9, 8, release));
    EXPECT_FALSE(PixelBuffer::crop(nullptr, 8, 8, release));
    EXPECT_EQ(released, 3);
  }
}

TEST(PixelBuffer, WrapsMemoryInPlaceAndReleasesItOnceWhetherAcceptedOrNot) {
  std::uint8_t byte = 0;
  auto* const base = &byte;
  const struct {
    PixelFormat format;
    std::size_t width, height;
    std::array<std::uint8_t*, 3> bases;
    std::array<std::size_t, 3> rows;
    bool accepted;
  } cases[] = {
      {BGRA, 16, 16, {base}, {64}, true},
      {BGRA, 16, 16, {base}, {63}, false},
      {BGRA, 16, 16, {nullptr}, {64}, false},
      {BGRA, 0, 0, {base}, {0}, true},
      {BGRA, kMost / 4 + 1, 1, {base}, {64}, false},
      {BiPlanarVideoRange, 15, 15, {base, base + 1}, {15, 16}, true},
      {BiPlanarVideoRange, 15, 15, {base, base}, {15, 15}, false},
      {Planar, 15, 15, {base, base, base}, {15, 8, 7}, false},
      {static_cast<PixelFormat>(0), 15, 15, {base, base, base}, {64, 64, 64}, false},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(&test - cases);
    int released = 0;
    auto picture = PixelBuffer::wrap(test.format, test.width, test.height, test.bases, test.rows, [&] { ++released; });
    ASSERT_EQ(picture != nullptr, test.accepted);
    EXPECT_EQ(released, test.accepted ? 0 : 1);
    for (std::size_t i = 0; picture && i < picture->planeCount(); ++i) {
      EXPECT_TRUE(picture->plane(i).base == test.bases[i] && picture->plane(i).bytesPerRow == test.rows[i]);
      EXPECT_TRUE(picture->plane(i).height == (i == 0 ? test.height : 8U) && !picture->shareable());
    }
    picture.reset();
    EXPECT_EQ(released, 1);
  }
}

TEST(PixelBufferPool, ReusesWhatWasGivenBackButNotUnderAnObserver) {
  auto pool = PixelBufferPool::create(Planar, 33, 17);
  for (int i = 0; i < 10; ++i) {
    const auto first = pool->acquire();
    const auto second = pool->acquire();
    ASSERT_NE(first->plane(0).base, second->plane(0).base);
    EXPECT_TRUE(first->colorMatrix() == ColorMatrix::Unspecified && first->shareable());
    expectOwnMemory(*first);
    first->setColorMatrix(ColorMatrix::BT709);
    second->setColorMatrix(ColorMatrix::BT601);
  }
  EXPECT_EQ(pool->allocated(), 2U);
  std::weak_ptr<PixelBuffer> observers[] = {pool->acquire(), pool->acquire()};
  const auto third = pool->acquire();
  EXPECT_EQ(pool->allocated(), 3U);
  observers[0].reset();
  const auto fourth = pool->acquire();
  EXPECT_EQ(pool->allocated(), 3U);
  pool.reset();
  expectOwnMemory(*third);  // Pictures outlive their pool.
}

}  // namespace
}  // namespace zellive
