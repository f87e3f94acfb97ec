#include "apps/zellive/CommandLine.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

#include "apps/zellive/StreamSettings.h"

namespace zellive::tool {
namespace {

std::variant<PublishOptions, Farewell> parse(const std::string& line) {
  std::istringstream words(line);
  return parseCommandLine({std::istream_iterator<std::string>(words), {}});
}

TEST(CommandLineTest, AnswersWrongLinesWithOneLineAndStatusTwo) {
  // What follows the bar must be named in the answer; + stands for the beginning of a good line.
  for (const std::string text : {"|publish",
                                 "broadcast|broadcast",
                                 "publish --test-card|URL",
                                 "publish http://h/a/k --test-card|rtmp://",
                                 "publish rtmp:// --test-card|rtmp://",
                                 "publish rtmp://h/a --test-card|STREAM",
                                 "+--test-card --encoder x265|libx264",
                                 "+|--input FILE or --test-card",
                                 "+--input a --test-card|--test-card",
                                 "+--test-card --loop|--input",
                                 "+--input|--input",
                                 "+--test-card --quality 5|--quality",
                                 "+--test-card --denoise 4|--denoise",
                                 "+--test-card --size 640|--size",
                                 "+--test-card --size 641x360|even",
                                 "+--test-card --size -640x360|--size",
                                 "+--test-card --fps 0|--fps",
                                 "+--test-card --fps 24.5|--fps",
                                 "+--test-card --bitrate 1.5G|--bitrate",
                                 "+--test-card --bitrate 9k|--bitrate",
                                 "+--test-card --bitrate inf|--bitrate",
                                 "+--test-card --duration 0|--duration",
                                 "+--test-card --duration nan|--duration",
                                 "+--test-card --reconnect-count 0|--reconnect-count",
                                 "+--test-card --colour|--colour"}) {
    const auto bar = text.find('|');
    const auto line = text.substr(0, bar);
    const auto parsed = parse(line.starts_with('+') ? "publish rtmp://host/app/key " + line.substr(1) : line);
    ASSERT_TRUE(std::holds_alternative<Farewell>(parsed)) << text;
    const auto& farewell = std::get<Farewell>(parsed);
    EXPECT_EQ(farewell.status, 2) << text;
    EXPECT_NE(farewell.text.find(text.substr(bar + 1)), std::string::npos) << text << "\n" << farewell.text;
    EXPECT_EQ(farewell.text.find('\n'), farewell.text.size() - 1) << farewell.text;
  }
  for (const char* line : {"--help", "publish --help", "--version"}) {
    const auto parsed = parse(line);
    ASSERT_TRUE(std::holds_alternative<Farewell>(parsed)) << line;
    EXPECT_EQ(std::get<Farewell>(parsed).status, 0) << line;
  }
}

TEST(StreamSettingsTest, KeepsTheShapeWithinTheLimitAndTheSource) {
  const PictureSize medium{1280, 720};
  EXPECT_EQ(fitSize({1920, 1080}, medium), medium);
  EXPECT_EQ(fitSize({1080, 1920}, medium), (PictureSize{720, 1280})) << "portrait stays portrait";
  EXPECT_EQ(fitSize({640, 480}, medium), (PictureSize{640, 480})) << "never larger than the source";
  EXPECT_EQ(fitSize({1440, 1080}, medium), (PictureSize{960, 720})) << "the short side limits";
  EXPECT_EQ(fitSize({3840, 2160}, {640, 480}), (PictureSize{736, 414})) << "the area limits";
  for (int width = 1; width < 2000; width += 37) {
    for (int height = 1; height < 2000; height += 41) {
      const auto size = fitSize({width, height}, medium);
      ASSERT_TRUE(size.width > 0 && size.width % 2 == 0 && size.height > 0 && size.height % 2 == 0 &&
                  sameShape(size, {width, height}))
          << width << "x" << height << " gave " << toText(size);
    }
  }
}

TEST(StreamSettingsTest, FollowsSourceQualityAndOptions) {
  std::string error;
  PublishOptions options;
  EXPECT_EQ(makeVideoConfiguration(options, {1920, 1080}, 30000.0 / 1001, error)->videoFrameRate(), 24U);
  for (const std::uint64_t bitRate : {20'000U, 9'000'000U}) {
    options.bitRate = bitRate;
    const auto video = makeVideoConfiguration(options, {640, 360}, 14.99, error);
    ASSERT_TRUE(video) << error;
    EXPECT_EQ(video->videoFrameRate(), 15U);
    EXPECT_EQ(video->videoMaxKeyFrameInterval(), 30U);
    EXPECT_EQ(video->videoBitRate(), bitRate);
    EXPECT_NEAR(static_cast<double>(video->videoMaxBitRate()), static_cast<double>(bitRate) * 1740800 / 1536000, 1);
    EXPECT_NEAR(static_cast<double>(video->videoMinBitRate()), static_cast<double>(bitRate) * 1228800 / 1536000, 1);
  }
}

}  // namespace
}  // namespace zellive::tool
