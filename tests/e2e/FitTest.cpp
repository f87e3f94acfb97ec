#include "tests/e2e/Shown.h"
#include "tests/e2e/Tool.h"

namespace zellive::test {
namespace {

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
    const Shown before(portrait, 360, 640);
    const Shown after(server->finishedRecording(matrix), 640, 360);

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

}  // namespace
}  // namespace zellive::test
