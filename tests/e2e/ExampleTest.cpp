#include "tests/e2e/Tool.h"

namespace zellive::test {
namespace {

TEST_F(ServerTest, TheExamplePublishesAStreamThatDecodes) {
  const auto run = runProgram({ZELLIVE_EXAMPLE, server->url("example"), "4"});
  ASSERT_EQ(run.status, 0) << run.output << run.errors;
  const auto path = server->finishedRecording("example");
  EXPECT_EQ(runProgram({"ffmpeg", "-v", "error", "-i", path, "-f", "null", "-"}).errors, "");
  const auto pictures = runProgram({"ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
                                    "stream=nb_read_frames", "-of", "csv=p=0", path});
  EXPECT_GT(std::stoi(pictures.output), 3 * 24);
}

}  // namespace
}  // namespace zellive::test
