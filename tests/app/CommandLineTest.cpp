#include "apps/zellive/CommandLine.h"

#include <gtest/gtest.h>

#include <sstream>

namespace zellive::tool {
namespace {

std::variant<PublishOptions, Farewell> parse(const std::string& line) {
  std::istringstream words(line);
  return parseCommandLine({std::istream_iterator<std::string>(words), {}});
}

TEST(CommandLineTest, UnderstandsEveryOption) {
  const auto parsed = parse(
      "publish rtmp://host/app/key --input clip.mp4 --loop --quality 2 --size 640x360 --fps 25 --bitrate 1.5M "
      "--adaptive --denoise 3 --duration 2.5 --encoder libx264 --preset superfast --reconnect-interval 7 "
      "--reconnect-count 9 --json --verbose");
  ASSERT_TRUE(std::holds_alternative<PublishOptions>(parsed)) << std::get<Farewell>(parsed).text;
  const auto& options = std::get<PublishOptions>(parsed);
  EXPECT_EQ(options.url, "rtmp://host/app/key");
  EXPECT_EQ(options.input, "clip.mp4");
  EXPECT_TRUE(options.loop);
  EXPECT_EQ(options.quality, 2U);
  EXPECT_EQ(options.size, (PictureSize{640, 360}));
  EXPECT_EQ(options.framesPerSecond, 25U);
  EXPECT_EQ(options.bitRate, 1500000U);
  EXPECT_TRUE(options.adaptive);
  EXPECT_EQ(options.denoise, 3);
  EXPECT_EQ(options.duration, std::chrono::duration<double>(2.5));
  EXPECT_EQ(options.encoder, "libx264");
  EXPECT_EQ(options.preset, "superfast");
  EXPECT_EQ(options.reconnectInterval, 7U);
  EXPECT_EQ(options.reconnectCount, 9U);
  EXPECT_TRUE(options.json);
  EXPECT_TRUE(options.verbose);
}

TEST(CommandLineTest, LeavesToSourceAndQualityWhatIsNotGiven) {
  const auto parsed = parse("publish rtmps://host/app/key --test-card");
  ASSERT_TRUE(std::holds_alternative<PublishOptions>(parsed));
  const auto& options = std::get<PublishOptions>(parsed);
  EXPECT_TRUE(options.input.empty());
  EXPECT_EQ(options.quality, 1U);
  EXPECT_FALSE(options.size || options.framesPerSecond || options.bitRate || options.duration);
  EXPECT_EQ(options.denoise, 0);
  EXPECT_EQ(options.reconnectInterval, 5U);
  EXPECT_EQ(options.reconnectCount, 3U);
}

TEST(CommandLineTest, AnswersWrongLinesWithOneLineAndStatusTwo) {
  struct Case {
    const char* line;
    const char* told;  ///< What the complaint must name.
  };
  const std::string good = "publish rtmp://host/app/key ";
  const Case cases[] = {
      {"", "publish"},
      {"broadcast", "broadcast"},
      {"publish --test-card", "URL"},
      {"publish http://host/app/key --test-card", "rtmp://"},
      {"publish rtmp:// --test-card", "rtmp://"},
      {"publish rtmp://host/app/key", "--input FILE or --test-card"},
      {"+--input a.mp4 --test-card", "--test-card"},
      {"+--test-card --loop", "--input"},
      {"+--input", "--input"},
      {"+--test-card --quality 5", "--quality"},
      {"+--test-card --denoise 4", "--denoise"},
      {"+--test-card --size 640", "--size"},
      {"+--test-card --size 641x360", "even"},
      {"+--test-card --size -640x360", "--size"},
      {"+--test-card --fps 0", "--fps"},
      {"+--test-card --fps 24.5", "--fps"},
      {"+--test-card --bitrate fast", "--bitrate"},
      {"+--test-card --bitrate 5", "--bitrate"},
      {"+--test-card --duration 0", "--duration"},
      {"+--test-card --duration nan", "--duration"},
      {"+--test-card --reconnect-count 0", "--reconnect-count"},
      {"+--test-card --colour", "--colour"},
  };
  for (const auto& [line, told] : cases) {
    const auto parsed = parse(*line == '+' ? good + (line + 1) : std::string(line));
    ASSERT_TRUE(std::holds_alternative<Farewell>(parsed)) << line;
    const auto& farewell = std::get<Farewell>(parsed);
    EXPECT_EQ(farewell.status, 2) << line;
    EXPECT_NE(farewell.text.find(told), std::string::npos) << line << "\n" << farewell.text;
    EXPECT_EQ(farewell.text.find('\n'), farewell.text.size() - 1) << line << "\n" << farewell.text;
  }
}

TEST(CommandLineTest, HelpNamesEveryOptionAndIsNoError) {
  for (const char* line : {"--help", "publish --help"}) {
    const auto parsed = parse(line);
    ASSERT_TRUE(std::holds_alternative<Farewell>(parsed)) << line;
    const auto& farewell = std::get<Farewell>(parsed);
    EXPECT_EQ(farewell.status, 0);
    for (const char* option :
         {"URL", "--input", "--loop", "--test-card", "--quality", "--size", "--fps", "--bitrate", "--adaptive",
          "--denoise", "--duration", "--encoder", "--preset", "--reconnect-interval", "--reconnect-count", "--json"}) {
      EXPECT_NE(farewell.text.find(option), std::string::npos) << line << " lacks " << option;
    }
  }
  const auto version = parse("--version");
  ASSERT_TRUE(std::holds_alternative<Farewell>(version));
  EXPECT_EQ(std::get<Farewell>(version).status, 0);
  EXPECT_NE(std::get<Farewell>(version).text.find("zellive "), std::string::npos);
}

TEST(CommandLineTest, ReadsBitRates) {
  EXPECT_EQ(parseBitRate("1500000"), 1500000U);
  EXPECT_EQ(parseBitRate("1500k"), 1500000U);
  EXPECT_EQ(parseBitRate("1.5M"), 1500000U);
  for (const char* text : {"", "k", "1.5G", "-1M", "1e400", "inf", "1 M", "1MM", "9k", "201M"}) {
    EXPECT_FALSE(parseBitRate(text)) << text;
  }
}

}  // namespace
}  // namespace zellive::tool
