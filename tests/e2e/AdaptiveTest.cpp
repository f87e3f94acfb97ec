#include <csignal>
#include <cstdio>

#include "tests/e2e/Tool.h"
#include "tests/support/Relay.h"

namespace zellive::test {
namespace {

/// Waits until the tool tells of an encoder rate within these bounds, later than `after`; the stream's time then, or −1
/// when `limit` comes first.
double waitForRate(Process& tool, double after, double least, double most, std::chrono::seconds limit) {
  double found = -1;
  waitUntil(
      [&] {
        const auto output = tool.output();
        for (const auto& line : jsonLines(output.substr(0, output.rfind('\n') + 1))) {
          if (found < 0 && line.at("type") == "status" && line.at("elapsed") > after &&
              line.at("encoder_bit_rate") >= least && line.at("encoder_bit_rate") <= most) {
            found = line.at("elapsed");
          }
        }
        return found >= 0 || tool.waitFor(200ms);
      },
      limit);
  return found;
}

/// Video bits per second of the recording between two times of the stream, in seconds.
double videoRate(const FlvFile& file, double from, double to) {
  double bytes = 0;
  for (const auto& tag : file.mediaTags(FlvTag::Video)) {
    bytes += tag.timestamp >= from * 1000 && tag.timestamp < to * 1000 ? static_cast<double>(tag.body.size()) : 0;
  }
  return bytes * 8 / (to - from);
}

TEST_F(ServerTest, TheBitRateFollowsANarrowingAndWideningLink) {
  Relay relay(server->rtmpPort());
  Process tool(toolCommand("rtmp://127.0.0.1:" + std::to_string(relay.port()) + "/live/adaptive",
                           {"--input", clip, "--loop", "--size", "640x360", "--bitrate", "400k", "--adaptive", "--json",
                            "--preset", "superfast"}));
  const double begun = waitForRate(tool, 6, 400e3, 1e9, 20s);
  ASSERT_GE(begun, 0) << tool.output() << tool.errors();

  // Sound and picture need 66 kB/s, and 47 with the picture at its lowest rate.
  relay.setRate(25'000);
  const double narrowed = waitForRate(tool, begun, 0, 300e3, 40s);
  ASSERT_GE(narrowed, 0) << "the rate does not go down\n" << tool.output();
  const double low = waitForRate(tool, narrowed + 4, 0, 1e9, 10s);
  relay.setRate(1e9);
  const double widened = waitForRate(tool, low, 400e3, 1e9, 60s);
  ASSERT_GE(widened, 0) << "the rate does not go up again\n" << tool.output();
  const double end = waitForRate(tool, widened + 5, 0, 1e9, 10s);
  tool.signal(SIGINT);
  expectEnd(tool, 0, 10s);

  const FlvFile file(server->finishedRecording("adaptive"));
  const double before = videoRate(file, 1, begun);
  const double during = videoRate(file, narrowed + 1, low);
  const double after = videoRate(file, widened + 1, end - 0.5);
  std::printf("recorded video: %.0f kbit/s, narrowed %.0f, widened %.0f\n", before / 1000, during / 1000, after / 1000);
  EXPECT_LT(during, before * 0.85);
  EXPECT_GT(after, during * 1.15);
}

}  // namespace
}  // namespace zellive::test
