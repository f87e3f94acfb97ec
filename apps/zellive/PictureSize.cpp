#include "apps/zellive/PictureSize.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace zellive::tool {
namespace {

std::string ratioText(PictureSize size) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f",
                static_cast<double>(static_cast<float>(size.width) / static_cast<float>(size.height)));
  return text;
}

int evenBelow(double value) { return std::max(2, static_cast<int>(value) & ~1); }

}  // namespace

std::string toText(PictureSize size) { return std::to_string(size.width) + "x" + std::to_string(size.height); }

bool sameShape(PictureSize a, PictureSize b) { return ratioText(a) == ratioText(b); }

PictureSize fitSize(PictureSize source, PictureSize limit) {
  const double sourceArea = static_cast<double>(source.width) * source.height;
  const double limitArea = static_cast<double>(limit.width) * limit.height;
  const double shortSides = static_cast<double>(std::min(limit.width, limit.height)) /
                            static_cast<double>(std::min(source.width, source.height));
  const double scale = std::min({1.0, shortSides, std::sqrt(limitArea / sourceArea)});
  const double ratio = static_cast<double>(source.width) / source.height;
  // Rounding to even sides bends the shape of small pictures, so step down until a size has it.
  for (int height = evenBelow(source.height * scale + 1e-6); height >= 2; height -= 2) {
    const int nearest = static_cast<int>(std::lround(height * ratio / 2)) * 2;
    for (const int width : {nearest, nearest - 2, nearest + 2}) {
      const PictureSize size{width, height};
      if (width >= 2 && width <= source.width && height <= source.height && sameShape(size, source)) {
        return size;
      }
    }
  }
  // Only a tiny picture with odd sides gets here; twice its size has the shape for certain.
  return {source.width * 2, source.height * 2};
}

}  // namespace zellive::tool
