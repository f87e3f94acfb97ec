#include "zellive/platform/KeyedArchive.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

TEST(KeyedArchive, GivesBackWhatWasPutInAndRefusesPiecesOfIt) {
  constexpr auto smallest = std::int64_t{-1} - std::int64_t{~0ULL >> 1};
  std::string everyByte(256, '\0');
  for (std::size_t i = 0; i < 256; ++i) {
    everyByte[i] = static_cast<char>(i);
  }
  const auto archiver = makeKeyedArchiver();
  archiver->encodeUnsigned("unsigned", 1);
  archiver->encodeUnsigned("unsigned", ~0ULL);
  archiver->encodeSigned("signed", smallest);
  archiver->encodeSigned("positive", 5);
  archiver->encodeBool("yes", true);
  archiver->encodeSize("size", {360.5, -640});
  archiver->encodeSize("no size", {NAN, INFINITY});
  archiver->encodeString("bytes", everyByte);
  archiver->encodeString("empty", "");
  archiver->encodeString("key \" \xff", "value");
  const std::string whole = archiver->finish();
  const auto archive = makeKeyedUnarchiver(whole);
  ASSERT_NE(archive, nullptr);
  EXPECT_EQ(archive->decodeUnsigned("unsigned"), ~0ULL);
  EXPECT_EQ(archive->decodeSigned("signed"), smallest);
  EXPECT_EQ(archive->decodeUnsigned("positive"), 5U);
  EXPECT_EQ(archive->decodeBool("yes"), true);
  EXPECT_EQ(archive->decodeSize("size"), (Size{360.5, -640}));
  EXPECT_FALSE(archive->decodeSize("no size"));
  EXPECT_EQ(archive->decodeString("bytes"), everyByte);
  EXPECT_EQ(archive->decodeString("empty"), "");
  EXPECT_FALSE(archive->decodeString("absent"));
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const test::LogCapture log;
    EXPECT_EQ(makeKeyedUnarchiver(std::string_view(whole).substr(0, length)), nullptr) << length;
    EXPECT_EQ(log.count(LogLevel::Error, ""), 1U) << length;
  }
}

TEST(KeyedArchive, OtherTextIsRefusedAndDeepTextDoesNoHarm) {
  const test::LogCapture log;
  const std::string deep(100000, '[');
  const std::string shut(100000, ']');
  std::string deepObjects;
  for (int i = 0; i < 100000; ++i) {
    deepObjects += "{\"a\":";
  }
  for (const std::string& text :
       {std::string("null"), std::string("[]"), std::string("{}{}"), std::string("{\"a\":1e999}"),
        std::string("{\"a\":\"\xff\"}"), std::string(1, '\0'), deep, deep + shut, deepObjects}) {
    EXPECT_EQ(makeKeyedUnarchiver(text), nullptr) << text.substr(0, 40);
  }
  const auto archive = makeKeyedUnarchiver("{\"a\":" + deep + shut + ",\"b\":1}");
  ASSERT_NE(archive, nullptr);
  EXPECT_EQ(archive->decodeUnsigned("b"), 1U);
  EXPECT_FALSE(archive->decodeString("a"));
}

TEST(KeyedArchive, ValuesOfAnotherTypeOrRangeGiveNothing) {
  // By what they can be read as: unsigned, signed, bool, size (z), text.
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"us", {"1", "9223372036854775807"}},
      {"u", {"9223372036854775808"}},
      {"s", {"-1"}},
      {"b", {"true"}},
      {"t", {R"("\u00ff")"}},
      {"z", {R"({"width": 1, "height": 2.5})"}},
      {"", {"18446744073709551616", "1.0", "null", R"("\u0100")", R"("\ud83d\ude00")", "[1, 2]", "{}"}},
      {"", {R"({"width": 1})", R"({"width": 1, "height": "2"})"}},
  };
  for (const auto& [kinds, values] : cases) {
    for (const auto& json : values) {
      const auto archive = makeKeyedUnarchiver("{\"key\": " + json + "}");
      ASSERT_NE(archive, nullptr) << json;
      const std::string found = std::string(archive->decodeUnsigned("key") ? "u" : "") +
                                (archive->decodeSigned("key") ? "s" : "") + (archive->decodeBool("key") ? "b" : "") +
                                (archive->decodeSize("key") ? "z" : "") + (archive->decodeString("key") ? "t" : "");
      EXPECT_EQ(found, kinds) << json;
    }
  }
}

}  // namespace
}  // namespace zellive
