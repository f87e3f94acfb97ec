#include "zellive/platform/KeyedArchive.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

constexpr auto kLargestUnsigned = std::numeric_limits<std::uint64_t>::max();
constexpr auto kSmallestSigned = std::numeric_limits<std::int64_t>::min();

std::string everyByte() {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    bytes.push_back(static_cast<char>(i));
  }
  return bytes;
}

std::string sampleArchive() {
  const auto archiver = makeKeyedArchiver();
  archiver->encodeUnsigned("unsigned", 1);
  archiver->encodeUnsigned("unsigned", kLargestUnsigned);
  archiver->encodeSigned("signed", kSmallestSigned);
  archiver->encodeSigned("positive", 5);
  archiver->encodeBool("yes", true);
  archiver->encodeBool("no", false);
  archiver->encodeSize("size", {360.5, -640});
  archiver->encodeString("bytes", everyByte());
  archiver->encodeString("empty", "");
  archiver->encodeString("key \" \xff", "value");
  return archiver->finish();
}

TEST(KeyedArchive, GivesBackWhatWasPutIn) {
  const auto archive = makeKeyedUnarchiver(sampleArchive());
  ASSERT_NE(archive, nullptr);
  EXPECT_EQ(archive->decodeUnsigned("unsigned"), kLargestUnsigned);
  EXPECT_EQ(archive->decodeSigned("signed"), kSmallestSigned);
  EXPECT_EQ(archive->decodeSigned("positive"), 5);
  EXPECT_EQ(archive->decodeUnsigned("positive"), 5U);
  EXPECT_EQ(archive->decodeBool("yes"), true);
  EXPECT_EQ(archive->decodeBool("no"), false);
  EXPECT_EQ(archive->decodeSize("size"), (Size{360.5, -640}));
  EXPECT_EQ(archive->decodeString("bytes"), everyByte());
  EXPECT_EQ(archive->decodeString("empty"), "");
}

TEST(KeyedArchive, IsAPlainJsonObjectInTheOrderOfEncoding) {
  const auto archiver = makeKeyedArchiver();
  EXPECT_EQ(archiver->finish(), "{}");
  archiver->encodeSize("videoSize", {360, 640});
  archiver->encodeUnsigned("b", 2);
  archiver->encodeString("asc", "\x11\x88");
  archiver->encodeUnsigned("a", 1);
  archiver->encodeUnsigned("b", 3);
  EXPECT_EQ(archiver->finish(),
            "{\"videoSize\":{\"width\":360.0,\"height\":640.0},\"b\":3,\"asc\":\"\\u0011\u0088\",\"a\":1}");
}

TEST(KeyedArchive, TruncatedArchivesAreRefusedWithOneLine) {
  const auto whole = sampleArchive();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const test::LogCapture log;
    EXPECT_EQ(makeKeyedUnarchiver(std::string_view(whole).substr(0, length)), nullptr) << length;
    EXPECT_EQ(log.count(LogLevel::Error, ""), 1U) << length;
  }
}

TEST(KeyedArchive, OtherTextIsRefused) {
  const test::LogCapture log;
  const std::string deep(200000, '[');
  std::string deepObjects;
  for (int i = 0; i < 100000; ++i) {
    deepObjects += "{\"a\":";
  }
  for (const std::string& text :
       {std::string("null"), std::string("[]"), std::string("3"), std::string("\"text\""), std::string("{}{}"),
        std::string("{\"a\":1e999}"), std::string("{\"a\":\"\xff\"}"), std::string("{\"a\":nan}"), std::string(1, '\0'),
        deep, deep + std::string(deep.size(), ']'), deepObjects}) {
    EXPECT_EQ(makeKeyedUnarchiver(text), nullptr) << text.substr(0, 40);
  }
}

TEST(KeyedArchive, DeepValuesOfOtherKeysDoNoHarm) {
  const std::string deep(100000, '[');
  const auto archive = makeKeyedUnarchiver("{\"a\":" + deep + std::string(deep.size(), ']') + ",\"b\":1}");
  ASSERT_NE(archive, nullptr);
  EXPECT_EQ(archive->decodeUnsigned("b"), 1U);
  EXPECT_FALSE(archive->decodeString("a"));
}

TEST(KeyedArchive, ValuesOfAnotherTypeOrRangeGiveNothing) {
  const struct {
    const char* json;
    bool isUnsigned, isSigned, isBool, isSize, isString;
  } cases[] = {
      {"1", true, true, false, false, false},
      {"-1", false, true, false, false, false},
      {"9223372036854775807", true, true, false, false, false},
      {"9223372036854775808", true, false, false, false, false},
      {"18446744073709551616", false, false, false, false, false},
      {"1.0", false, false, false, false, false},
      {"true", false, false, true, false, false},
      {"null", false, false, false, false, false},
      {"\"1\"", false, false, false, false, true},
      {"\"\\u00ff\"", false, false, false, false, true},
      {"\"\\u0100\"", false, false, false, false, false},
      {"\"\\ud83d\\ude00\"", false, false, false, false, false},
      {"[1, 2]", false, false, false, false, false},
      {"{}", false, false, false, false, false},
      {"{\"width\": 1}", false, false, false, false, false},
      {"{\"width\": 1, \"height\": \"2\"}", false, false, false, false, false},
      {"{\"width\": 1, \"height\": 2.5}", false, false, false, true, false},
  };
  for (const auto& test : cases) {
    const auto archive = makeKeyedUnarchiver(std::string("{\"key\": ") + test.json + "}");
    ASSERT_NE(archive, nullptr) << test.json;
    EXPECT_EQ(archive->decodeUnsigned("key").has_value(), test.isUnsigned) << test.json;
    EXPECT_EQ(archive->decodeSigned("key").has_value(), test.isSigned) << test.json;
    EXPECT_EQ(archive->decodeBool("key").has_value(), test.isBool) << test.json;
    EXPECT_EQ(archive->decodeSize("key").has_value(), test.isSize) << test.json;
    EXPECT_EQ(archive->decodeString("key").has_value(), test.isString) << test.json;
    EXPECT_FALSE(archive->decodeUnsigned("absent").has_value());
  }
}

TEST(KeyedArchive, SizesThatAreNoNumbersGiveNothing) {
  const auto archiver = makeKeyedArchiver();
  archiver->encodeSize("size", {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()});
  const auto archive = makeKeyedUnarchiver(archiver->finish());
  ASSERT_NE(archive, nullptr);
  EXPECT_FALSE(archive->decodeSize("size").has_value());
}

}  // namespace
}  // namespace zellive
