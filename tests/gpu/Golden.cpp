#include "tests/gpu/Golden.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <random>

#include "zellive/platform/Image.h"

namespace zellive::test {
namespace {

std::string save(const PixelBuffer& picture, const std::string& suffix) {
  const auto* test = testing::UnitTest::GetInstance()->current_test_info();
  auto name = std::string(test->test_suite_name()) + "." + test->name() + "-" + suffix + ".png";
  std::replace(name.begin(), name.end(), '/', '_');
  const auto path = (std::filesystem::current_path() / name).string();
  const auto& plane = picture.plane(0);
  savePNG(Image(Image::Layout::BGRAPremultiplied, picture.width(), picture.height(), plane.bytesPerRow, plane.base, {}),
          path);
  return path;
}

}  // namespace

std::shared_ptr<PixelBuffer> samplePicture(PixelFormat format, std::size_t width, std::size_t height, unsigned seed) {
  auto picture = PixelBuffer::create(format, width, height);
  std::minstd_rand random(seed);
  for (std::size_t p = 0; p < picture->planeCount(); ++p) {
    const auto& plane = picture->plane(p);
    // The padding too, so that reading it shows.
    for (std::size_t i = 0; i < plane.bytesPerRow * plane.height; ++i) {
      plane.base[i] = static_cast<std::uint8_t>(random() >> 8);
    }
  }
  return picture;
}

Color sampleLinear(const PixelBuffer::Plane& plane, std::size_t components, double s, double t) {
  const auto axis = [](double at, std::size_t count) {
    const double position = at * static_cast<double>(count) - 0.5;
    const double low = std::floor(position);
    const auto clamp = [&](double value) {
      return static_cast<std::size_t>(std::clamp(value, 0.0, static_cast<double>(count - 1)));
    };
    return std::tuple(clamp(low), clamp(low + 1), position - low);
  };
  const auto [x0, x1, fx] = axis(s, plane.width);
  const auto [y0, y1, fy] = axis(t, plane.height);
  Color color{};
  for (std::size_t c = 0; c < components; ++c) {
    const auto at = [&](std::size_t x, std::size_t y) -> double {
      return plane.base[y * plane.bytesPerRow + x * components + c];
    };
    color[c] = std::lerp(std::lerp(at(x0, y0), at(x1, y0), fx), std::lerp(at(x0, y1), at(x1, y1), fx), fy);
  }
  return color;
}

testing::AssertionResult matches(const std::shared_ptr<PixelBuffer>& actual, std::size_t width, std::size_t height,
                                 double tolerance, const std::function<Color(std::size_t x, std::size_t y)>& expected) {
  if (!actual || actual->width() != width || actual->height() != height) {
    return testing::AssertionFailure() << "wanted " << width << " x " << height << ", got "
                                       << (actual ? actual->width() : 0) << " x " << (actual ? actual->height() : 0);
  }
  const auto difference = PixelBuffer::create(PixelFormat::BGRA, width, height);
  double worst = 0;
  std::size_t wrong = 0;
  std::array<std::size_t, 3> where{};
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      const Color wanted = expected(x, y);
      bool off = false;
      for (std::size_t c = 0; c < 4; ++c) {
        const double got = actual->plane(0).base[y * actual->plane(0).bytesPerRow + x * 4 + c];
        const double error = std::abs(got - std::clamp(wanted[c], 0.0, 255.0));
        difference->plane(0).base[y * difference->plane(0).bytesPerRow + x * 4 + c] =
            c == 3 ? 255 : static_cast<std::uint8_t>(std::min(error * 8, 255.0));
        off = off || error > tolerance;
        if (error > worst) {
          worst = error;
          where = {x, y, c};
        }
      }
      wrong += off ? 1 : 0;
    }
  }
  if (wrong == 0) {
    return testing::AssertionSuccess() << "largest error " << worst;
  }
  return testing::AssertionFailure() << wrong << " of " << width * height << " pixels are off, the worst by " << worst
                                     << " at (" << where[0] << ", " << where[1] << ") in "
                                     << "BGRA"[where[2]] << "; see " << save(*actual, "actual") << " and "
                                     << save(*difference, "difference");
}

}  // namespace zellive::test
