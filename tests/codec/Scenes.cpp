#include "tests/codec/Scenes.h"

#include <array>
#include <cmath>
#include <random>

namespace zellive::test {
namespace {

struct Colour {
  double red, green, blue;
};

/// `x` and `y` from 0 to 1.
Colour sceneAt(double x, double y) { return {0.05 + 0.9 * x, 0.05 + 0.9 * y, 0.95 - 0.8 * x * y}; }

std::array<double, 3> yCbCr(const Colour& colour, bool fullRange) {
  const double luma = 0.299 * colour.red + 0.587 * colour.green + 0.114 * colour.blue;
  const double blue = (colour.blue - luma) / 1.772;
  const double red = (colour.red - luma) / 1.402;
  return fullRange ? std::array{255 * luma, 128 + 255 * blue, 128 + 255 * red}
                   : std::array{16 + 219 * luma, 128 + 224 * blue, 128 + 224 * red};
}

/// The scene's Y, Cb or Cr at a sample of a plane with half or full size.
double sampleAt(std::size_t component, std::size_t column, std::size_t row, double width, double height,
                bool fullRange) {
  const double step = component == 0 ? 1 : 2;
  const double x = (static_cast<double>(column) + 0.5) * step / width;
  const double y = (static_cast<double>(row) + 0.5) * step / height;
  return yCbCr(sceneAt(x, y), fullRange)[component];
}

std::uint8_t byte(double value) {
  return static_cast<std::uint8_t>(std::lround(std::min(std::max(value, 0.0), 255.0)));
}

void fillPlane(const PixelBuffer::Plane& plane, std::size_t samplesPerColumn, const auto& value) {
  for (std::size_t row = 0; row < plane.height; ++row) {
    for (std::size_t column = 0; column < plane.width; ++column) {
      for (std::size_t index = 0; index < samplesPerColumn; ++index) {
        plane.base[row * plane.bytesPerRow + column * samplesPerColumn + index] = byte(value(column, row, index));
      }
    }
  }
}

void drawBgra(const PixelBuffer& picture, double width, double height) {
  fillPlane(picture.plane(0), 4, [&](std::size_t column, std::size_t row, std::size_t index) {
    const Colour colour =
        sceneAt((static_cast<double>(column) + 0.5) / width, (static_cast<double>(row) + 0.5) / height);
    return 255 * std::array{colour.blue, colour.green, colour.red, 1.0}[index];
  });
}

}  // namespace

std::shared_ptr<PixelBuffer> colourScene(PixelFormat format, std::size_t width, std::size_t height) {
  auto picture = PixelBuffer::create(format, width, height);
  const auto w = static_cast<double>(width);
  const auto h = static_cast<double>(height);
  if (format == PixelFormat::BGRA) {
    drawBgra(*picture, w, h);
    return picture;
  }
  const bool full = format == PixelFormat::BiPlanarFullRange;
  const bool biPlanar = format != PixelFormat::Planar;
  for (std::size_t plane = 0; plane < picture->planeCount(); ++plane) {
    fillPlane(picture->plane(plane), biPlanar && plane == 1 ? 2 : 1,
              [&](std::size_t column, std::size_t row, std::size_t index) {
                return sampleAt(plane + index, column, row, w, h, full);
              });
  }
  return picture;
}

std::array<double, 3> differenceFromScene(const AVFrame& frame, bool fullRange, int contentWidth, int contentHeight) {
  std::array<double, 3> mean{};
  for (std::size_t component = 0; component < 3; ++component) {
    const int columns = component == 0 ? frame.width : frame.width / 2;
    const int rows = component == 0 ? frame.height : frame.height / 2;
    for (int row = 0; row < rows; ++row) {
      for (int column = 0; column < columns; ++column) {
        const double wanted = sampleAt(component, static_cast<std::size_t>(column), static_cast<std::size_t>(row),
                                       contentWidth, contentHeight, fullRange);
        mean[component] += std::abs(wanted - frame.data[component][row * frame.linesize[component] + column]);
      }
    }
    mean[component] /= columns * rows;
  }
  return mean;
}

std::shared_ptr<PixelBuffer> restlessScene(std::size_t width, std::size_t height, int index) {
  auto picture = PixelBuffer::create(PixelFormat::Planar, width, height);
  std::mt19937 random(static_cast<unsigned>(index));
  for (std::size_t plane = 0; plane < 3; ++plane) {
    fillPlane(picture->plane(plane), 1, [&](std::size_t column, std::size_t row, std::size_t) {
      const auto moved = column + static_cast<std::size_t>(index) * 5;
      return plane == 0 ? 60.0 + static_cast<double>((moved / 8 + row / 8) % 5 * 30 + random() % 40) : 128.0;
    });
  }
  return picture;
}

}  // namespace zellive::test
