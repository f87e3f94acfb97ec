#include <algorithm>

#include "tests/e2e/Tool.h"

namespace zellive::test {
namespace {

/// A file that a decoder has nothing to complain about, and of which ffprobe says all that, "key=value" in lines; the
/// number of its pictures.
std::size_t expectShown(const std::string& path, const std::vector<std::string>& expected) {
  const auto run = runProgram({"ffprobe", "-v", "error", "-count_frames", "-show_streams", "-show_format", path});
  EXPECT_EQ(run.errors, "");
  const auto shown = "\n" + run.output;
  for (const auto& line : expected) {
    EXPECT_NE(shown.find("\n" + line + "\n"), std::string::npos) << line << " is not in" << shown;
  }
  const std::string count = "nb_read_frames=";
  const auto at = shown.find(count, shown.find("codec_type=video"));
  return at == std::string::npos ? 0 : std::stoul(shown.substr(at + count.size()));
}

const std::vector<std::string> clipStreams{"codec_name=h264", "profile=High",      "width=1280",
                                           "height=720",      "has_b_frames=0",    "codec_name=aac",
                                           "profile=LC",      "sample_rate=48000", "channels=1"};

/// The times of the pictures, or of the key frames alone. Other NAL units travel as tags of their own.
std::vector<double> pictureTimes(const FlvFile& file, bool keysOnly) {
  std::vector<double> times;
  for (const auto& tag : file.mediaTags(FlvTag::Video)) {
    if ((tag.nalType() == 1 && !keysOnly) || tag.nalType() == 5) {
      times.push_back(tag.timestamp);
    }
  }
  return times;
}

void expectSpacing(const std::vector<double>& times, double milliseconds, const char* what) {
  ASSERT_GE(times.size(), 3U) << what;
  for (std::size_t i = 1; i < times.size(); ++i) {
    ASSERT_NEAR(times[i] - times[i - 1], milliseconds, 1.01) << what << " " << i;
  }
}

TEST_F(ServerTest, WhatTheServerRecordsIsAFaultlessStream) {
  const auto run = runProgram(
      toolCommand(server->url("clip"), {"--input", clip, "--loop", "--duration", "9", "--preset", "superfast"}));
  ASSERT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_EQ(run.errors, "");
  const auto path = server->finishedRecording("clip");
  const FlvFile file(path);
  std::uint32_t last = 0;
  for (const auto& tag : file.tags()) {
    if (tag.isMedia()) {
      ASSERT_GE(tag.timestamp, last);
      last = tag.timestamp;
    }
  }
  const auto pictures = pictureTimes(file, false);
  auto keys = pictureTimes(file, true);
  ASSERT_GE(keys.size(), 5U);
  EXPECT_EQ(expectShown(path, clipStreams), pictures.size());
  expectSpacing(pictures, 1000.0 / 24, "picture");
  ASSERT_EQ(keys.front(), pictures.front()) << "the first picture is a key frame";
  // One or two are forced while the stream begins; then they follow the rhythm.
  EXPECT_LE(keys[1] - keys[0], 2001);
  EXPECT_LE(keys[2] - keys[1], 2001);
  keys.erase(keys.begin(), keys.begin() + 2);
  expectSpacing(keys, 2000, "key frame");
  std::vector<double> sounds;
  for (const auto& tag : file.mediaTags(FlvTag::Audio)) {
    sounds.push_back(tag.timestamp);
  }
  expectSpacing(sounds, 1024 / 48.0, "sound");
  EXPECT_NEAR(pictures.front(), sounds.front(), 50);
  EXPECT_GE(std::min(pictures.back(), sounds.back()), 8950);
}

TEST_F(ServerTest, TheExamplePublishesAStreamThatDecodes) {
  const auto run = runProgram({ZELLIVE_EXAMPLE, server->url("example"), "4"});
  ASSERT_EQ(run.status, 0) << run.output << run.errors;
  EXPECT_GT(expectShown(server->finishedRecording("example"), {}), 3 * 24);
}

TEST(SecondReceiverTest, AnotherServerTakesTheStreamAndItsMetadata) {
  TemporaryDirectory directory;
  const auto path = directory.path() + "/received.flv";
  const auto url = "rtmp://127.0.0.1:" + std::to_string(freePort()) + "/live/clip";
  // Takes one publisher and writes down what it gets, byte for byte.
  Process receiver({"ffmpeg", "-v", "error", "-listen", "1", "-f", "data", "-i", url, "-map", "0", "-c", "copy", "-f",
                    "data", path});
  // It does not tell when it is ready; the tool tries again until it is.
  const auto run = runProgram(toolCommand(url, {"--input", clip, "--duration", "3", "--preset", "superfast",
                                                "--reconnect-interval", "1", "--reconnect-count", "20"}));
  EXPECT_EQ(run.status, 0) << run.output << run.errors;
  ASSERT_TRUE(receiver.waitFor(15s));
  EXPECT_GE(expectShown(path, clipStreams), 70U) << "of three seconds";
  expectShown(path, {"bit_rate=1572864", "bit_rate=131072000", "TAG:encoder=ZelLive 1.0"});  // By the metadata alone.
}

}  // namespace
}  // namespace zellive::test
