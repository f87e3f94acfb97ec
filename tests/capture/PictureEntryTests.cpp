#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "zellive/capture/ZelLivePixelBufferFitSizeFilter.h"
#include "zellive/capture/ZelLiveTool.h"

namespace zellive::test {
namespace {

struct Receiver : ZelLivePixelBufferFitSizeDelegate {
  void filterPixelBuffer(ZelLivePixelBufferFitSizeFilter&, std::shared_ptr<PixelBuffer> pixelBuffer,
                         double timeStamp) override {
    received = std::move(pixelBuffer);
    stamp = timeStamp;
  }
  std::shared_ptr<PixelBuffer> received;
  double stamp = 0;
};

TEST(FitSizeFilter, ShapesEqualToTwoDecimalsPassUnchanged) {
  struct Case {
    Size output;
    std::size_t width, height;
    bool passes;
  };
  const Case cases[] = {
      {{1920, 1080}, 1280, 720, true}, {{1280, 720}, 854, 480, true},  {{720, 1280}, 720, 1280, true},
      {{720, 1280}, 1280, 720, false}, {{1280, 720}, 640, 480, false}, {{1280, 720}, 1276, 720, false},
      {{0, 0}, 640, 480, false},       {{640, 0}, 640, 480, false},    {{1e300, 1e-300}, 640, 480, false},
  };
  for (const auto& c : cases) {
    const auto receiver = std::make_shared<Receiver>();
    ZelLivePixelBufferFitSizeFilter filter(c.output);
    filter.setDelegate(receiver);
    const auto picture = PixelBuffer::create(PixelFormat::BiPlanarFullRange, c.width, c.height);
    filter.renderPixelBuffer(picture, 12.5);
    filter.renderPixelBuffer(picture, 13.5);
    EXPECT_EQ(receiver->received, c.passes ? picture : nullptr) << c.width << " x " << c.height;
    EXPECT_EQ(receiver->stamp, c.passes ? 13.5 : 0.0);
  }
}

TEST(FitSizeFilter, ADelegateThatIsGoneIsNotCalled) {
  ZelLivePixelBufferFitSizeFilter filter({4, 4});
  filter.setDelegate(std::make_shared<Receiver>());
  filter.renderPixelBuffer(PixelBuffer::create(PixelFormat::BGRA, 4, 4), 0);
}

/// A foreign picture whose rows are as long as the test says and whose memory ends with its last sample.
struct ForeignPicture {
  ForeignPicture(PixelFormat format, std::size_t width, std::size_t height, std::size_t padding) {
    std::size_t planeCount = format == PixelFormat::BGRA ? 1 : 2;
    std::array<std::uint8_t*, 3> bases{};
    std::array<std::size_t, 3> strides{};
    for (std::size_t index = 0; index < planeCount; ++index) {
      const std::size_t rows = index == 0 ? height : (height + 1) / 2;
      const std::size_t bytes = planeCount == 1 ? width * 4 : index == 0 ? width : (width + 1) / 2 * 2;
      strides[index] = bytes + padding;
      memory[index].resize(strides[index] * (rows - 1) + bytes);
      for (auto& byte : memory[index]) {
        byte = static_cast<std::uint8_t>(next = next * 31 + 7);
      }
      bases[index] = memory[index].data();
    }
    buffer = PixelBuffer::wrap(format, width, height, bases, strides);
  }
  std::array<std::vector<std::uint8_t>, 3> memory;
  std::shared_ptr<PixelBuffer> buffer;
  unsigned next = 1;
};

TEST(PixelBufferCopies, HoldTheSamePictureInMemoryOfTheirOwn) {
  ZelLiveTool tool;
  for (const auto format : {PixelFormat::BGRA, PixelFormat::BiPlanarFullRange, PixelFormat::BiPlanarVideoRange}) {
    for (const auto& [width, height] : {std::pair{64, 4}, {7, 5}, {1, 1}, {129, 3}}) {
      for (const std::size_t padding : {0, 1, 64}) {
        ForeignPicture picture(format, width, height, padding);
        picture.buffer->setColorMatrix(ColorMatrix::BT709);
        const auto copy = tool.copyPixelBuffer(picture.buffer);
        ASSERT_NE(copy, nullptr);
        EXPECT_TRUE(copy->shareable());
        EXPECT_EQ(copy->format(), format);
        EXPECT_EQ(copy->colorMatrix(), ColorMatrix::BT709);
        for (std::size_t index = 0; index < copy->planeCount(); ++index) {
          const auto& from = picture.buffer->plane(index);
          const auto& to = copy->plane(index);
          const std::size_t bytes = from.width * (copy->planeCount() == 1 ? 4 : index + 1);
          for (std::size_t row = 0; row < from.height; ++row) {
            ASSERT_TRUE(std::equal(from.base + row * from.bytesPerRow, from.base + row * from.bytesPerRow + bytes,
                                   to.base + row * to.bytesPerRow))
                << width << " x " << height << " plane " << index << " row " << row;
          }
        }
      }
    }
  }
}

TEST(PixelBufferCopies, PassPlanarPicturesAndNothingOn) {
  ZelLiveTool tool;
  const auto planar = PixelBuffer::create(PixelFormat::Planar, 8, 8);
  EXPECT_EQ(tool.copyPixelBuffer(planar), planar);
  EXPECT_EQ(tool.copyPixelBuffer(nullptr), nullptr);
}

TEST(PixelBufferCopies, AreRecycled) {
  ZelLiveTool tool;
  ForeignPicture picture(PixelFormat::BGRA, 16, 16, 0);
  const auto* first = tool.copyPixelBuffer(picture.buffer)->plane(0).base;
  const auto held = tool.copyPixelBuffer(picture.buffer);
  EXPECT_EQ(held->plane(0).base, first);
  EXPECT_NE(tool.copyPixelBuffer(picture.buffer)->plane(0).base, first) << "a copy in use was handed out again";
}

}  // namespace
}  // namespace zellive::test
