#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include "tests/support/Process.h"

namespace zellive::test {

/// The picture that a file shows after a second, as a viewer sees it by the file's own range and matrix.
struct Shown {
  using Colour = std::array<int, 3>;
  Shown(const std::string& path, int columns, int rows) : width(columns) {
    const auto decoded =
        runProgram({"ffmpeg", "-v", "error", "-ss", "1", "-i", path, "-vf", "scale=in_color_matrix=auto", "-pix_fmt",
                    "rgb24", "-f", "rawvideo", "-frames:v", "1", "-"});
    EXPECT_EQ(decoded.errors, "");
    rgb = decoded.output;
    EXPECT_EQ(rgb.size(), static_cast<std::size_t>(columns * rows * 3));
    rgb.resize(static_cast<std::size_t>(columns * rows * 3));
  }
  [[nodiscard]] Colour at(int column, int row) const {
    const auto* pixel = reinterpret_cast<const unsigned char*>(rgb.data()) + (row * width + column) * 3;
    return {pixel[0], pixel[1], pixel[2]};
  }
  [[nodiscard]] bool isNear(const Colour& colour, int column, int row) const {
    return std::ranges::equal(at(column, row), colour, [](int a, int b) { return std::abs(a - b) <= 10; });
  }
  std::string rgb;
  int width;
};

}  // namespace zellive::test
