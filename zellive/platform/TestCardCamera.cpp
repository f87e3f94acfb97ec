#include "zellive/platform/TestCardCamera.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace zellive {
namespace {

constexpr auto kSweepTime = std::chrono::nanoseconds(std::chrono::seconds(4));

struct Colour {
  std::uint8_t y;
  std::uint8_t cb;
  std::uint8_t cr;
};

std::uint8_t toByte(double value) { return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0))); }

/// From full-range R, G, B, by the matrix of BT.709.
Colour colourOf(int red, int green, int blue, bool fullRange) {
  const double luma = 0.2126 * red + 0.7152 * green + 0.0722 * blue;
  const double lumaStep = fullRange ? 1 : 219.0 / 255;
  const double chromaStep = fullRange ? 1 : 224.0 / 255;
  return {toByte((fullRange ? 0 : 16) + luma * lumaStep), toByte(128 + (blue - luma) / 1.8556 * chromaStep),
          toByte(128 + (red - luma) / 1.5748 * chromaStep)};
}

/// Pixels. Edges fall on even ones, so that chroma follows luma; what is outside the picture is cut off.
struct Area {
  std::size_t x;
  std::size_t y;
  std::size_t width;
  std::size_t height;
};

void fill(PixelBuffer& picture, Area area, Colour colour) {
  const auto& luma = picture.plane(0);
  const auto& chroma = picture.plane(1);
  const std::size_t left = std::min(area.x / 2, chroma.width);
  const std::size_t right = std::min((area.x + area.width) / 2, chroma.width);
  const std::size_t top = std::min(area.y / 2, chroma.height);
  const std::size_t bottom = std::min((area.y + area.height) / 2, chroma.height);
  for (std::size_t row = top * 2; row < std::min(bottom * 2, luma.height); ++row) {
    std::memset(luma.base + row * luma.bytesPerRow + left * 2, colour.y, std::min(right * 2, luma.width) - left * 2);
  }
  for (std::size_t row = top; row < bottom; ++row) {
    std::uint8_t* pair = chroma.base + row * chroma.bytesPerRow + left * 2;
    for (std::size_t column = left; column < right; ++column) {
      *pair++ = colour.cb;
      *pair++ = colour.cr;
    }
  }
}

class TestCard : public VirtualCameraPictures {
 public:
  std::shared_ptr<PixelBuffer> pictureAt(std::chrono::nanoseconds time, PixelFormat format, std::size_t width,
                                         std::size_t height) override {
    if (!pool_ || pool_->format() != format || pool_->width() != width || pool_->height() != height) {
      pool_ = PixelBufferPool::create(format, width, height);
      background_ = PixelBuffer::create(format, width, height);
      if (!pool_ || !background_) {
        return nullptr;
      }
      drawBackground(*background_);
    }
    auto picture = pool_->acquire();
    if (!picture) {
      return nullptr;
    }
    for (std::size_t i = 0; i < picture->planeCount(); ++i) {
      std::memcpy(picture->plane(i).base, background_->plane(i).base,
                  picture->plane(i).bytesPerRow * picture->plane(i).height);
    }
    picture->setColorMatrix(ColorMatrix::BT709);
    const auto markWidth = std::max<std::size_t>(2, width / 40);
    const auto x = static_cast<std::size_t>((time % kSweepTime).count()) * (width - std::min(width, markWidth)) /
                   static_cast<std::size_t>(kSweepTime.count());
    fill(*picture, {x, height * 13 / 16, markWidth, height / 16}, white(format));
    return picture;
  }

 private:
  static Colour white(PixelFormat format) { return colourOf(255, 255, 255, isFullRange(format)); }
  static bool isFullRange(PixelFormat format) { return format == PixelFormat::BiPlanarFullRange; }

  /// Bars above, the letter in the dark below them, and room for the mark below that.
  static void drawBackground(PixelBuffer& picture) {
    constexpr std::array<std::array<int, 3>, 7> kBars{
        {{191, 191, 191}, {191, 191, 0}, {0, 191, 191}, {0, 191, 0}, {191, 0, 191}, {191, 0, 0}, {0, 0, 191}}};
    const bool fullRange = isFullRange(picture.format());
    const std::size_t width = picture.width();
    const std::size_t height = picture.height();
    fill(picture, {0, 0, width + 1, height + 1}, colourOf(0, 0, 0, fullRange));
    for (std::size_t i = 0; i < kBars.size(); ++i) {
      const std::size_t left = width * i / kBars.size();
      fill(picture, {left, 0, width * (i + 1) / kBars.size() - left, height / 2},
           colourOf(kBars[i][0], kBars[i][1], kBars[i][2], fullRange));
    }
    const Colour ink = colourOf(255, 255, 255, fullRange);
    const std::size_t unit = height / 32;
    const std::size_t x = width / 8;
    const std::size_t y = height * 9 / 16;
    fill(picture, {x, y, unit, unit * 6}, ink);
    fill(picture, {x, y, unit * 4, unit}, ink);
    fill(picture, {x, y + unit * 2, unit * 3, unit}, ink);
  }

  std::shared_ptr<PixelBufferPool> pool_;
  std::shared_ptr<PixelBuffer> background_;
};

}  // namespace

VirtualCamera testCardCamera() {
  VirtualCamera camera;
  camera.uniqueID = "zellive.test-card";
  camera.localizedName = "test card";
  constexpr std::array<std::array<std::size_t, 2>, 5> kSizes{
      {{640, 480}, {1280, 720}, {1920, 1080}, {3840, 2160}, {352, 288}}};
  for (const auto& [width, height] : kSizes) {
    camera.formats.push_back({"NV12", width, height, 1, 60});
  }
  camera.pixelFormats = {PixelFormat::BiPlanarFullRange, PixelFormat::BiPlanarVideoRange};
  camera.makePictures = [] { return std::make_unique<TestCard>(); };
  return camera;
}

}  // namespace zellive
