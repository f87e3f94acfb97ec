#include <algorithm>
#include <thread>

#include "apps/zellive/Drawing.h"
#include "tests/e2e/Tool.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::test {
namespace {

/// A decoded picture as a viewer sees it.
struct Shown {
  using Colour = std::array<int, 3>;
  std::string rgb;
  int width;
  [[nodiscard]] Colour at(int column, int row) const {
    const auto* pixel = reinterpret_cast<const unsigned char*>(rgb.data()) + (row * width + column) * 3;
    return {pixel[0], pixel[1], pixel[2]};
  }
  [[nodiscard]] bool isNear(const Colour& colour, int column, int row) const {
    return std::ranges::equal(at(column, row), colour, [](int a, int b) { return std::abs(a - b) <= 10; });
  }
};

/// The pictures of a file from a time on, by its own range and matrix.
std::vector<Shown> picturesOf(const std::string& path, int width, int height, const std::string& from = "0") {
  const auto decoded =
      runProgram({"ffmpeg", "-v", "error", "-ss", from, "-i", path, "-vf", "scale=in_color_matrix=auto", "-pix_fmt",
                  "rgb24", "-f", "rawvideo", "-vsync", "passthrough", "-"});
  EXPECT_EQ(decoded.errors, "");
  std::vector<Shown> pictures;
  const auto size = static_cast<std::size_t>(width * height * 3);
  for (std::size_t at = 0; at + size <= decoded.output.size(); at += size) {
    pictures.push_back({decoded.output.substr(at, size), width});
  }
  return pictures;
}

TEST_F(ServerTest, APortraitClipIsShownWholeAndUndistortedInALandscapeStream) {
  TemporaryDirectory directory;
  for (const std::string matrix : {"bt709", "smpte170m"}) {
    SCOPED_TRACE(matrix);
    // A disc in the middle and a coloured square in each corner.
    const auto portrait = directory.path() + "/" + matrix + ".mp4";
    const auto made =
        runProgram({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                    "color=gray:s=360x640:r=24:d=2,format=yuv420p,geq=lum='if(lt(hypot(X-179.5,Y-319.5),120),220,90)':"
                    "cb=128:cr=128,"
                    "drawbox=w=90:h=90:color=red:t=fill,drawbox=x=270:w=90:h=90:color=blue:t=fill,"
                    "drawbox=y=550:w=90:h=90:color=green:t=fill,drawbox=x=270:y=550:w=90:h=90:color=yellow:t=fill",
                    "-colorspace", matrix, "-color_range", "tv", "-c:v", "libx264", "-qp", "4", portrait});
    ASSERT_EQ(made.status, 0) << made.errors;
    const auto run = runProgram(toolCommand(server->url(matrix), {"--input", portrait, "--size", "640x360"}));
    ASSERT_EQ(run.status, 0) << run.output << run.errors;
    EXPECT_EQ(run.errors, "");
    const Shown before = picturesOf(portrait, 360, 640, "1").at(0);
    const Shown after = picturesOf(server->finishedRecording(matrix), 640, 360, "1").at(0);

    // 360 × 640 becomes 202.5 × 360, from column 218.75 to 421.25.
    for (int row = 0; row < 360; ++row) {
      for (int column = 0; column < 640; column += column == 216 ? 208 : 1) {
        ASSERT_TRUE(after.isNear({0, 0, 0}, column, row)) << "the bar at " << column << ", " << row;
      }
    }
    for (const auto& [column, row] : {std::pair{45, 45}, {315, 45}, {45, 595}, {315, 595}, {180, 320}, {180, 120}}) {
      const int x = 219 + column * 9 / 16;
      const int y = row * 9 / 16;
      EXPECT_TRUE(after.isNear(before.at(column, row), x, y)) << x << ", " << y;
    }
    int across = 0;
    int down = 0;
    for (int offset = -100; offset < 100; ++offset) {
      across += after.at(320 + offset, 180)[1] > 155 ? 1 : 0;
      down += after.at(320, 180 + offset)[1] > 155 ? 1 : 0;
    }
    EXPECT_NEAR(across, 135, 2);
    EXPECT_NEAR(down, 135, 2);
  }
}

TEST_F(ServerTest, ShapesMayChangeWithinAStream) {
  constexpr std::int64_t type = ZelLiveInputAudio | ZelLiveInputVideo;
  const auto video = ZelLiveVideoConfiguration::defaultConfigurationForQuality(0, type);
  video->setVideoSize({320, 180});
  const auto session = ZelLiveSession::create(ZelLiveAudioConfiguration::defaultConfiguration(), video, type);
  const auto info = std::make_shared<ZelLiveStreamInfo>();
  info->setUrl(server->url("shapes"));
  const LogCapture log;
  session->startLive(info);
  ASSERT_TRUE(waitUntil([&] { return session->state() == ZelStreamSocketStatusConnected; }, 10s));

  // Half a second each of red that fills the output, a green portrait and a blue square, in different formats.
  const auto red = PixelBuffer::create(PixelFormat::Planar, 160, 90);
  const auto green = PixelBuffer::create(PixelFormat::Planar, 90, 160);
  const auto blue = PixelBuffer::create(PixelFormat::BGRA, 100, 100);
  tool::fill(*red, {0, 0, 160, 90}, tool::colourOf(255, 0, 0));
  tool::fill(*green, {0, 0, 90, 160}, tool::colourOf(0, 255, 0));
  for (std::size_t at = 0; at < blue->plane(0).bytesPerRow * 100; ++at) {
    blue->plane(0).base[at] = at % 4 == 0 ? 255 : 0;
  }
  red->setColorMatrix(ColorMatrix::BT709);
  green->setColorMatrix(ColorMatrix::BT709);
  // The first picture that is drawn takes its time.
  session->pushVideo(green);
  ASSERT_TRUE(waitUntil([&] { return log.count("Live: fitFilter") > 0; }, 30s));
  const auto start = std::chrono::steady_clock::now();
  for (int n = 0; n < 24 * 3; ++n) {
    std::this_thread::sleep_until(start + n * 1000ms / 24);
    session->pushAudio(std::vector<std::uint8_t>(48000 / 24 * 2));
    session->pushVideo(std::array{red, green, blue}[static_cast<std::size_t>(n / 12 % 3)]);
  }
  const auto dropped = session->droppedPictures();
  session->stopLive();
  EXPECT_TRUE(session->waitUntilStopped(2s));

  std::string seen;
  for (const auto& picture : picturesOf(server->finishedRecording("shapes"), 320, 180)) {
    const auto shows = [&](const Shown::Colour& colour, int column) { return picture.isNear(colour, column, 90); };
    // The portrait is 101 columns wide, the square 180.
    seen += shows({255, 0, 0}, 2)                              ? 'r'
            : shows({0, 255, 0}, 114) && shows({0, 0, 0}, 104) ? 'g'
            : shows({0, 0, 255}, 246) && shows({0, 0, 0}, 256) ? 'b'
                                                               : '?';
  }
  EXPECT_GE(seen.size() + dropped, 60U) << seen << ": some go before sound and picture are in step, and at the end";
  seen.erase(std::unique(seen.begin(), seen.end()), seen.end());
  EXPECT_TRUE(seen.ends_with("rgbrgb")) << seen;
}

}  // namespace
}  // namespace zellive::test
