#include "apps/zellive/ClipSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tests/support/Process.h"

namespace zellive::tool {
namespace {

using namespace std::chrono_literals;

/// Makes clips with ffmpeg in a directory of the test's own.
class ClipSourceTest : public ::testing::Test {
 protected:
  std::string make(const std::string& name, const std::string& options) {
    auto path = directory_.path() + "/" + name;
    std::istringstream words("ffmpeg -v error -y " + options + " " + path);
    const auto outcome = test::runProgram({std::istream_iterator<std::string>(words), {}});
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    return path;
  }
  static std::unique_ptr<ClipSource> open(const std::string& path, bool loop = false) {
    std::string error;
    auto source = ClipSource::open(path, loop, error);
    EXPECT_TRUE(source) << error;
    return source;
  }
  static int luma(const PixelBuffer& picture, std::size_t x = 8, std::size_t y = 8) {
    return picture.plane(0).base[y * picture.plane(0).bytesPerRow + x];
  }

  test::TemporaryDirectory directory_;
  /// Two seconds at 30 fps whose picture n has luma 20 + 3 n, and a tone in stereo, whose rate follows.
  const std::string counting_ =
      "-f lavfi -i color=black:s=64x48:r=30:d=2,format=yuv420p,geq=lum=20+3*N:cb=128:cr=128 -f lavfi -i "
      "sine=frequency=440:duration=2 -ac 2 -c:v libx264 -qp 0 -bf 2 -c:a aac -shortest -ar ";
};

TEST_F(ClipSourceTest, ShowsTheNearestPictureAtAnyRate) {
  const auto path = make("count.mp4", counting_ + "48000");
  for (const int rate : {10, 24, 50}) {
    const auto source = open(path);
    ASSERT_TRUE(source);
    for (int i = 0; i < rate * 19 / 10; ++i) {
      const double time = static_cast<double>(i) / rate;
      const auto picture = source->pictureAt(MediaTime(static_cast<std::int64_t>(time * 1e9)));
      ASSERT_TRUE(picture) << time;
      EXPECT_LE(std::abs((luma(*picture) - 20) / 3.0 - time * 30), 0.51) << "at " << time << " with " << rate << " fps";
    }
    EXPECT_FALSE(source->pictureAt(2200ms)) << "after the end";
  }
}

TEST_F(ClipSourceTest, ResamplesWithoutGapsAndLoopsWithoutASeam) {
  const auto source = open(make("count.mp4", counting_ + "44100"), true);
  ASSERT_TRUE(source);
  std::vector<std::int16_t> block(480);
  int quiet = 0;
  int passes = 1;
  int last = 0;
  for (int i = 0; i < 500; ++i) {
    source->readAudio(block);
    quiet += std::ranges::all_of(block, [](int sample) { return std::abs(sample) < 1000; }) ? 1 : 0;
    const auto picture = source->pictureAt(i * 10ms);
    ASSERT_TRUE(picture) << i;
    passes += luma(*picture) < last ? 1 : 0;
    last = luma(*picture);
  }
  EXPECT_LE(quiet, 15) << "an encoder fades in, and pads the end of a pass";
  EXPECT_EQ(passes, 3) << "each pass shows its pictures once, in order";
}

TEST_F(ClipSourceTest, TurnsUprightMakesPixelsSquareAndConvertsRanges) {
  const std::string half = "-f lavfi -i color=black:s=128x64:r=10:d=0.5,drawbox=w=64:h=64:color=white:t=fill ";
  const auto lying = make("lying.mp4", half + "-pix_fmt yuv420p");
  const auto upright = open(make("turned.mp4", "-i " + lying + " -c copy -metadata:s:v rotate=90"));
  ASSERT_TRUE(upright);
  EXPECT_EQ(upright->pictureSize(), (PictureSize{64, 128}));
  auto shown = upright->pictureAt(0s);
  ASSERT_TRUE(shown);
  EXPECT_LT(luma(*shown, 32, 16), 40);
  EXPECT_GT(luma(*shown, 32, 112), 200) << "what lay left is below";

  const auto square = open(make("wide.mkv", half + "-pix_fmt yuvj422p -vf setsar=2/1 -c:v mjpeg"));
  ASSERT_TRUE(square);
  EXPECT_EQ(square->pictureSize(), (PictureSize{256, 64}));
  shown = square->pictureAt(0s);
  ASSERT_TRUE(shown);
  EXPECT_NEAR(luma(*shown, 100, 32), 235, 4) << "full range becomes video range";
  EXPECT_NEAR(luma(*shown, 160, 32), 16, 4);
}

TEST_F(ClipSourceTest, RefusesFilesWithoutPicturesAndEndsWithDamagedOnes) {
  std::string error;
  EXPECT_FALSE(ClipSource::open(make("blind.wav", "-f lavfi -i sine=d=0.5"), false, error));
  EXPECT_NE(error.find("no pictures"), std::string::npos) << error;
  const auto path = make("broken.ts", "-f lavfi -i testsrc=s=64x48:d=2 -f lavfi -i sine=d=2 -pix_fmt yuv420p");
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  for (int i = 4000; i < static_cast<int>(std::filesystem::file_size(path)); i += 501) {
    file.seekp(i).put(static_cast<char>(i * 7));
  }
  file.close();
  const auto source = open(path);
  ASSERT_TRUE(source);
  std::vector<std::int16_t> block(480);
  int steps = 0;
  do {
    source->readAudio(block);
  } while (source->pictureAt(++steps * 10ms) && steps < 6000);
  EXPECT_LT(steps, 6000);
}

}  // namespace
}  // namespace zellive::tool
