#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <tuple>
#include <vector>

#include "zellive/capture/ZelLiveTool.h"

namespace zellive::test {
namespace {

/// A picture in foreign memory, whose rows are as long as the test says and which ends with its last sample.
struct ForeignPicture {
  ForeignPicture(PixelFormat format, std::size_t width, std::size_t height, std::size_t padding) {
    std::array<std::uint8_t*, 3> bases{};
    std::array<std::size_t, 3> strides{};
    for (std::size_t index = 0; index < (format == PixelFormat::BGRA ? 1 : 2); ++index) {
      const std::size_t rows = index == 0 ? height : (height + 1) / 2;
      const std::size_t bytes = format == PixelFormat::BGRA ? width * 4 : index == 0 ? width : (width + 1) / 2 * 2;
      strides[index] = bytes + padding;
      memory[index].resize(strides[index] * (rows - 1) + bytes);
      std::ranges::generate(memory[index], [&] { return static_cast<std::uint8_t>(next = next * 31 + 7); });
      bases[index] = memory[index].data();
    }
    buffer = PixelBuffer::wrap(format, width, height, bases, strides);
  }
  std::array<std::vector<std::uint8_t>, 2> memory;
  std::shared_ptr<PixelBuffer> buffer;
  unsigned next = 1;
};

TEST(PixelBufferCopies, HoldTheSamePictureInMemoryOfTheirOwn) {
  ZelLiveTool tool;
  for (const auto format : {PixelFormat::BGRA, PixelFormat::BiPlanarFullRange, PixelFormat::BiPlanarVideoRange}) {
    for (const auto& [width, height, padding] : {std::tuple{64, 4, 0}, {7, 5, 1}, {7, 4, 64}, {1, 1, 0}}) {
      const ForeignPicture picture(format, width, height, padding);
      picture.buffer->setColorMatrix(ColorMatrix::BT709);
      const auto copy = tool.copyPixelBuffer(picture.buffer);
      ASSERT_TRUE(copy && copy->shareable() && copy->format() == format);
      EXPECT_EQ(copy->colorMatrix(), ColorMatrix::BT709);
      for (std::size_t index = 0; index < copy->planeCount(); ++index) {
        const auto& from = picture.buffer->plane(index);
        const auto& to = copy->plane(index);
        const std::size_t bytes = from.width * (copy->planeCount() == 1 ? 4 : index + 1);
        for (std::size_t row = 0; row < from.height; ++row) {
          ASSERT_EQ(std::memcmp(from.base + row * from.bytesPerRow, to.base + row * to.bytesPerRow, bytes), 0)
              << width << " x " << height << " plane " << index << " row " << row;
        }
      }
    }
  }
  const auto planar = PixelBuffer::create(PixelFormat::Planar, 8, 8);
  EXPECT_EQ(tool.copyPixelBuffer(planar), planar);
  EXPECT_EQ(tool.copyPixelBuffer(nullptr), nullptr);
}

}  // namespace
}  // namespace zellive::test
