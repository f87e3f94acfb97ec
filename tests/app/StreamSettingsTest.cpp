#include "apps/zellive/StreamSettings.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zellive::tool {
namespace {

TEST(PictureSizeTest, KeepsTheShapeWithinTheLimitAndTheSource) {
  struct Case {
    PictureSize source;
    PictureSize limit;
    PictureSize expected;
  };
  const PictureSize medium{1280, 720};
  const Case cases[] = {
      {{1280, 720}, medium, {1280, 720}},      // as it is
      {{1920, 1080}, medium, {1280, 720}},     // down
      {{1080, 1920}, medium, {720, 1280}},     // portrait stays portrait
      {{640, 480}, medium, {640, 480}},        // never up
      {{1440, 1080}, medium, {960, 720}},      // the short side limits
      {{3840, 2160}, {640, 480}, {736, 414}},  // the area limits: 640 × 480 pixels
      {{854, 480}, medium, {854, 480}},
  };
  for (const auto& [source, limit, expected] : cases) {
    EXPECT_EQ(fitSize(source, limit), expected)
        << toText(source) << " in " << toText(limit) << " gave " << toText(fitSize(source, limit));
  }
}

TEST(PictureSizeTest, AlwaysFindsAnEvenSizeOfTheSameShape) {
  for (int width = 1; width < 2000; width += 37) {
    for (int height = 1; height < 2000; height += 41) {
      const PictureSize source{width, height};
      const auto size = fitSize(source, {1280, 720});
      ASSERT_TRUE(size.width > 0 && size.height > 0 && size.width % 2 == 0 && size.height % 2 == 0) << toText(source);
      ASSERT_TRUE(sameShape(size, source)) << toText(source) << " gave " << toText(size);
    }
  }
}

TEST(StreamSettingsTest, FollowsTheSourceUpToTheQuality) {
  std::string error;
  const auto video = makeVideoConfiguration({}, {1920, 1080}, 30000.0 / 1001, error);
  ASSERT_TRUE(video) << error;
  EXPECT_EQ(video->videoSize(), (Size{1280, 720}));
  EXPECT_EQ(video->videoFrameRate(), 24U);
  EXPECT_EQ(video->videoMaxKeyFrameInterval(), 48U);
  EXPECT_EQ(video->videoBitRate(), 1536000U);

  const auto slow = makeVideoConfiguration({}, {640, 360}, 14.99, error);
  ASSERT_TRUE(slow) << error;
  EXPECT_EQ(slow->videoFrameRate(), 15U);
  EXPECT_EQ(slow->videoMaxKeyFrameInterval(), 30U);
}

TEST(StreamSettingsTest, MovesTheBoundsWithTheBitRate) {
  for (const std::uint64_t bitRate : {20'000U, 300'000U, 1'536'000U, 9'000'000U}) {
    PublishOptions options;
    options.bitRate = bitRate;
    std::string error;
    const auto video = makeVideoConfiguration(options, {1280, 720}, 0, error);
    ASSERT_TRUE(video) << error;
    EXPECT_EQ(video->videoBitRate(), bitRate);
    EXPECT_NEAR(static_cast<double>(video->videoMaxBitRate()), static_cast<double>(bitRate) * 1740800 / 1536000, 1);
    EXPECT_NEAR(static_cast<double>(video->videoMinBitRate()), static_cast<double>(bitRate) * 1228800 / 1536000, 1);
  }
}

TEST(StreamSettingsTest, RefusesAnotherShapeAndNamesASizeThatFits) {
  PublishOptions options;
  options.size = PictureSize{640, 480};
  std::string error;
  EXPECT_FALSE(makeVideoConfiguration(options, {1280, 720}, 30, error));
  EXPECT_NE(error.find("640x480"), std::string::npos) << error;
  const auto named = error.rfind("--size ");
  ASSERT_NE(named, std::string::npos) << error;
  options.size = parseSize(error.substr(named + 7, error.find(' ', named + 7) - named - 7));
  ASSERT_TRUE(options.size) << error;
  EXPECT_TRUE(makeVideoConfiguration(options, {1280, 720}, 30, error)) << error;
}

}  // namespace
}  // namespace zellive::tool
