#include "apps/zellive/ClipSource.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "tests/support/Process.h"

namespace zellive::tool {
namespace {

using namespace std::chrono_literals;

/// Makes clips with ffmpeg in a directory of the test's own.
class ClipSourceTest : public ::testing::Test {
 protected:
  std::string make(const std::string& name, std::vector<std::string> arguments) {
    const auto path = directory_.path() + "/" + name;
    arguments.insert(arguments.begin(), {"ffmpeg", "-v", "error", "-y"});
    arguments.push_back(path);
    const auto outcome = test::runProgram(std::move(arguments));
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    return path;
  }

  /// Two seconds at 30 fps whose picture n has luma 20 + 3 n, with a tone in `rate`-hertz stereo.
  std::string makeCounting(const std::string& name, int rate = 44100) {
    return make(name, {"-f", "lavfi", "-i", "color=black:s=64x48:r=30:d=2,format=yuv420p,geq=lum=20+3*N:cb=128:cr=128",
                       "-f", "lavfi", "-i", "sine=frequency=440:sample_rate=" + std::to_string(rate) + ":duration=2",
                       "-ac", "2", "-c:v", "libx264", "-qp", "0", "-bf", "2", "-c:a", "aac", "-shortest"});
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

  /// Level of a piece of sound, in 16-bit units.
  static double level(std::span<const std::int16_t> samples) {
    double sum = 0;
    for (const auto sample : samples) {
      sum += static_cast<double>(sample) * sample;
    }
    return std::sqrt(sum / static_cast<double>(samples.size()));
  }

  test::TemporaryDirectory directory_;
};

TEST_F(ClipSourceTest, ShowsTheNearestPictureAtAnyRate) {
  const auto path = makeCounting("count.mp4");
  for (const int rate : {10, 24, 30, 50}) {
    const auto source = open(path);
    ASSERT_TRUE(source);
    EXPECT_NEAR(source->frameRate(), 30, 0.01);
    for (int i = 0; i < rate * 19 / 10; ++i) {
      const double time = static_cast<double>(i) / rate;
      const auto picture = source->pictureAt(MediaTime(static_cast<std::int64_t>(time * 1e9)));
      ASSERT_TRUE(picture) << time;
      const double shown = (luma(*picture) - 20) / 3.0;
      EXPECT_LE(std::abs(shown - time * 30), 0.51) << "at " << time << " with " << rate << " fps";
    }
  }
}

TEST_F(ClipSourceTest, EndsOnceSoundAndPictureHave) {
  const auto source = open(makeCounting("count.mp4"));
  ASSERT_TRUE(source);
  EXPECT_TRUE(source->pictureAt(1900ms));
  EXPECT_FALSE(source->pictureAt(2200ms));
  EXPECT_EQ(source->failure(), "");
}

TEST_F(ClipSourceTest, ResamplesWithoutGapsAndLoopsWithoutASeam) {
  for (const int rate : {44100, 48000, 16000}) {
    const auto source = open(makeCounting("count.mov", rate), true);
    ASSERT_TRUE(source);
    std::vector<std::int16_t> block(480);
    std::vector<double> levels;
    std::vector<int> shown;
    for (int i = 0; i < 500; ++i) {
      source->readAudio(block);
      levels.push_back(level(block));
      const auto picture = source->pictureAt(i * 10ms);
      ASSERT_TRUE(picture) << i;
      shown.push_back((luma(*picture) - 20) / 3);
    }
    // The encoder fades in, and the last frame of a pass is padded: a few blocks about each seam may be quiet.
    const auto quiet = std::count_if(levels.begin() + 10, levels.end(), [](double value) { return value < 500; });
    EXPECT_LE(quiet, 12) << rate;
    const double passes = 500 * 10 / 2000.0;
    const auto falls = std::count_if(shown.begin() + 1, shown.end(),
                                     [&, last = shown[0]](int now) mutable { return std::exchange(last, now) > now; });
    EXPECT_EQ(falls, static_cast<int>(passes)) << "each pass shows its pictures once, in order";
  }
}

TEST_F(ClipSourceTest, TurnsUprightAndMakesPixelsSquare) {
  const std::vector<std::string> picture{
      "-f", "lavfi", "-i", "color=black:s=128x64:r=10:d=0.5,drawbox=x=0:y=0:w=64:h=64:color=white:t=fill"};
  auto lying = picture;
  lying.insert(lying.end(), {"-pix_fmt", "yuv420p"});
  const auto upright =
      open(make("turned.mp4", {"-i", make("lying.mp4", lying), "-c", "copy", "-metadata:s:v", "rotate=90"}));
  ASSERT_TRUE(upright);
  EXPECT_EQ(upright->pictureSize(), (PictureSize{64, 128}));
  const auto shown = upright->pictureAt(0s);
  ASSERT_TRUE(shown);
  EXPECT_LT(luma(*shown, 32, 16), 40);
  EXPECT_GT(luma(*shown, 32, 112), 200) << "what lay left is below";

  auto wide = picture;
  wide.insert(wide.end(), {"-pix_fmt", "yuv422p", "-vf", "setsar=2/1"});
  const auto square = open(make("wide.mkv", wide));
  ASSERT_TRUE(square);
  EXPECT_EQ(square->pictureSize(), (PictureSize{256, 64}));
  const auto stretched = square->pictureAt(0s);
  ASSERT_TRUE(stretched);
  EXPECT_EQ(stretched->width(), 256U);
  EXPECT_GT(luma(*stretched, 100, 32), 200);
  EXPECT_LT(luma(*stretched, 160, 32), 40);
}

TEST_F(ClipSourceTest, ConvertsFullRangeToVideoRange) {
  const auto source = open(make("full.mkv", {"-f", "lavfi", "-i", "color=white:s=64x48:r=10:d=0.3", "-pix_fmt",
                                             "yuvj420p", "-c:v", "mjpeg", "-q:v", "1"}));
  ASSERT_TRUE(source);
  const auto picture = source->pictureAt(0s);
  ASSERT_TRUE(picture);
  EXPECT_NEAR(luma(*picture), 235, 3);
}

TEST_F(ClipSourceTest, IsSilentWithoutSoundAndRefusesWithoutPictures) {
  const auto mute = open(make("mute.mp4", {"-f", "lavfi", "-i", "testsrc=s=64x48:d=0.5", "-pix_fmt", "yuv420p"}));
  ASSERT_TRUE(mute);
  std::vector<std::int16_t> block(4800, 1);
  mute->readAudio(block);
  EXPECT_EQ(level(block), 0);
  EXPECT_TRUE(mute->pictureAt(0s));

  const auto blind = make("blind.wav", {"-f", "lavfi", "-i", "sine=d=0.5"});
  std::string error;
  EXPECT_FALSE(ClipSource::open(blind, false, error));
  EXPECT_NE(error.find("no pictures"), std::string::npos) << error;
  EXPECT_FALSE(ClipSource::open(directory_.path() + "/absent.mp4", false, error));
  EXPECT_NE(error.find("No such file"), std::string::npos) << error;
}

/// Whatever is wrong with a file, it ends.
TEST_F(ClipSourceTest, SurvivesDamagedFiles) {
  const auto path = make("whole.ts", {"-f", "lavfi", "-i", "testsrc=s=64x48:d=2", "-f", "lavfi", "-i", "sine=d=2",
                                      "-pix_fmt", "yuv420p", "-f", "mpegts"});
  std::ifstream file(path, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(file), {}};
  for (std::size_t i = 4000; i < bytes.size(); i += 501) {
    bytes[i] = static_cast<char>(i * 7);
  }
  bytes.resize(bytes.size() * 3 / 4);
  const auto broken = directory_.path() + "/broken.ts";
  std::ofstream(broken, std::ios::binary) << bytes;
  std::string error;
  const auto source = ClipSource::open(broken, false, error);
  if (!source) {
    EXPECT_FALSE(error.empty());
    return;
  }
  std::vector<std::int16_t> block(480);
  int steps = 0;
  do {
    source->readAudio(block);
  } while (source->pictureAt(++steps * 10ms) && steps < 6000);
  EXPECT_LT(steps, 6000);
}

}  // namespace
}  // namespace zellive::tool
