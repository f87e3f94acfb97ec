#include "apps/zellive/CommandLine.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>
#include <tuple>

#include "apps/zellive/StreamSettings.h"

namespace zellive::tool {
namespace {

std::variant<PublishOptions, DevicesOptions, Farewell> parse(const std::string& line) {
  std::istringstream words(line);
  return parseCommandLine({std::istream_iterator<std::string>(words), {}});
}

TEST(CommandLineTest, TakesEveryOption) {
  const auto parsed = parse(
      "publish rtmp://h/a/k --input f --loop --duration 1.5 --quality 2 --size 640x360 --fps 30 --bitrate 1.5M "
      "--adaptive --denoise 3 --encoder libx264 --preset fast --reconnect-interval 7 --reconnect-count 9 --json -v");
  ASSERT_TRUE(std::holds_alternative<PublishOptions>(parsed)) << std::get<Farewell>(parsed).text;
  const auto& o = std::get<PublishOptions>(parsed);
  EXPECT_EQ(std::tie(o.url, o.input, o.encoder, o.preset), std::tuple("rtmp://h/a/k", "f", "libx264", "fast"));
  EXPECT_EQ(std::tie(o.quality, o.framesPerSecond, o.bitRate, o.denoise), std::tuple(2U, 30U, 1'500'000U, 3));
  EXPECT_EQ(std::tie(o.reconnectInterval, o.reconnectCount), std::tuple(7U, 9U));
  EXPECT_EQ(o.size, (PictureSize{640, 360}));
  EXPECT_EQ(o.duration, std::chrono::milliseconds(1500));
  EXPECT_TRUE(o.loop && o.adaptive && o.json && o.verbose);
}

TEST(CommandLineTest, NamesOfDevicesMayBeLeftOut) {
  using Names = std::pair<std::optional<std::string>, std::optional<std::string>>;
  const std::pair<const char*, Names> cases[] = {
      {"publish rtmp://h/a/k --camera", {"", std::nullopt}},
      {"publish --camera rtmp://h/a/k", {"", std::nullopt}},
      {"publish rtmp://h/a/k --camera --microphone", {"", ""}},
      {"publish rtmp://h/a/k --microphone Desk --camera=Front", {"Front", "Desk"}},
      {"publish --microphone --camera clip:f rtmp://h/a/k", {"clip:f", ""}},
  };
  for (const auto& [line, names] : cases) {
    const auto parsed = parse(line);
    ASSERT_TRUE(std::holds_alternative<PublishOptions>(parsed)) << std::get<Farewell>(parsed).text;
    const auto& o = std::get<PublishOptions>(parsed);
    EXPECT_EQ(Names(o.camera, o.microphone), names) << line;
    EXPECT_EQ(o.url, "rtmp://h/a/k") << line;
  }
  const auto parsed = parse(
      "publish rtmp://h/a/k --camera --mirror --orientation upside-down --preview --watermark w.png --pause-unfocused");
  ASSERT_TRUE(std::holds_alternative<PublishOptions>(parsed)) << std::get<Farewell>(parsed).text;
  const auto& o = std::get<PublishOptions>(parsed);
  EXPECT_EQ(std::tie(o.orientation, o.watermark), std::tuple(2, "w.png"));
  EXPECT_TRUE(o.mirror && o.preview && o.pauseUnfocused);
  EXPECT_TRUE(std::get<DevicesOptions>(parse("devices --json")).json);
}

/// One line that names `part`, and status 2.
void expectMistake(const std::string& line, const std::string& part) {
  const auto parsed = parse(line);
  ASSERT_TRUE(std::holds_alternative<Farewell>(parsed)) << line;
  const auto& farewell = std::get<Farewell>(parsed);
  EXPECT_EQ(farewell.status, 2) << line;
  EXPECT_NE(farewell.text.find(part), std::string::npos) << line << "\n" << farewell.text;
  EXPECT_EQ(farewell.text.find('\n'), farewell.text.size() - 1) << farewell.text;
}

TEST(CommandLineTest, AnswersWrongLinesWithOneLineAndStatusTwo) {
  expectMistake("", "publish");
  expectMistake("broadcast", "broadcast");
  expectMistake("publish --test-card", "URL");
  expectMistake("publish http://h/a/k --test-card", "rtmp://");
  expectMistake("publish rtmp://h/a --test-card", "STREAM");
  const std::string good = "publish rtmp://host/app/key ";
  expectMistake(good, "--input FILE, --test-card, --camera or --microphone");
  expectMistake(good + "--camera --input a", "--input");
  expectMistake(good + "--microphone --test-card", "--test-card");
  expectMistake(good + "--microphone --mirror", "--camera");
  expectMistake(good + "--camera --watermark a.png", "--preview");
  expectMistake(good + "--camera --orientation sideways", "landscape-left");
  expectMistake("devices rtmp://h/a/secret", "no URL");
  expectMistake("devices --loud", "--loud");
  expectMistake(good + "--input a --test-card", "--test-card");
  expectMistake(good + "--test-card --loop", "--input");
  expectMistake(good + "--test-card --size 641x360", "even");
  expectMistake(good + "--test-card --duration", "--duration needs a value");
  expectMistake(good + "--test-card --size 64x64 --size 32x32", "--size is given more than once");
  for (const std::string wrong :
       {"--encoder x265", "--quality 5", "--denoise 4", "--size 640", "--fps 0", "--bitrate 1.5G", "--bitrate 9k",
        "--duration nan", "--reconnect-interval 0", "--reconnect-count 0", "--colour"}) {
    expectMistake(good + "--test-card " + wrong, wrong.substr(0, wrong.find(' ')));
  }
  for (const char* line : {"--help", "publish --help", "--version"}) {
    const auto parsed = parse(line);
    ASSERT_TRUE(std::holds_alternative<Farewell>(parsed)) << line;
    EXPECT_EQ(std::get<Farewell>(parsed).status, 0) << line;
  }
}

TEST(CommandLineTest, UnderstandsBitRates) {
  EXPECT_EQ(parseBitRate("1500k"), parseBitRate("1.5M"));
  EXPECT_EQ(parseBitRate("1500k"), 1'500'000U);
}

TEST(StreamSettingsTest, KeepsTheShapeWithinTheLimitAndTheSource) {
  const PictureSize medium{1280, 720};
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
  PublishOptions options;
  EXPECT_EQ(makeVideoConfiguration(options, {1920, 1080}, 30000.0 / 1001)->videoFrameRate(), 24U);
  options.bitRate = 20'000;
  const auto video = makeVideoConfiguration(options, {640, 360}, 14.99);
  EXPECT_EQ(std::tuple(video->videoFrameRate(), video->videoMaxKeyFrameInterval(), video->videoBitRate()),
            std::tuple(15U, 30U, 20'000U));
  EXPECT_TRUE(video->videoMinBitRate() < 20'000U && video->videoMaxBitRate() > 20'000U);
}

}  // namespace
}  // namespace zellive::tool
