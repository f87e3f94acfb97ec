#include "zellive/platform/KeyedArchive.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

TEST(KeyedArchive, GivesBackTheUncommonAndRefusesPieces) {
  std::string everyByte(256, '\0');
  std::iota(everyByte.begin(), everyByte.end(), '\0');
  const auto archiver = makeKeyedArchiver();
  archiver->encodeUnsigned("unsigned", ~0ULL);
  archiver->encodeSigned("signed", std::int64_t{-1} - std::int64_t{~0ULL >> 1});
  archiver->encodeSize("no size", {NAN, INFINITY});
  archiver->encodeString("bytes", everyByte);
  archiver->encodeString("key \" \xff", "value");
  const std::string whole = archiver->finish();
  const auto archive = makeKeyedUnarchiver(whole);
  ASSERT_NE(archive, nullptr);
  EXPECT_EQ(archive->decodeUnsigned("unsigned"), ~0ULL);
  EXPECT_EQ(archive->decodeSigned("signed"), std::int64_t{-1} - std::int64_t{~0ULL >> 1});
  EXPECT_EQ(archive->decodeString("bytes"), everyByte);
  EXPECT_FALSE(archive->decodeSize("no size") || archive->decodeString("absent"));
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const test::LogCapture log;
    EXPECT_EQ(makeKeyedUnarchiver(std::string_view(whole).substr(0, length)), nullptr) << length;
    EXPECT_EQ(log.count(LogLevel::Error, ""), 1U) << length;
  }
}

TEST(KeyedArchive, ValuesOfAnotherTypeOrRangeGiveNothing) {
  // By what they can be read as: unsigned, signed, bool, size (z), text, or that they make no archive at all.
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"us", {"1", "9223372036854775807"}},
      {"u", {"9223372036854775808"}},
      {"s", {"-1"}},
      {"b", {"true"}},
      {"t", {R"("\u00ff")"}},
      {"z", {R"({"width": 1, "height": 2.5})"}},
      {"", {"18446744073709551616", "1.0", "null", R"("\u0100")", R"("\ud83d\ude00")", "[1, 2]", "{}"}},
      {"", {R"({"width": 1})", R"({"width": 1, "height": "2"})"}},
      {"none", {"1e999", "\"\xff\"", "1}{", "1}]"}},
  };
  for (const auto& [kinds, values] : cases) {
    for (const auto& json : values) {
      const auto archive = makeKeyedUnarchiver("{\"key\": " + json + "}");
      std::string found = archive ? "" : "none";
      if (archive) {
        found += archive->decodeUnsigned("key") ? "u" : "";
        found += archive->decodeSigned("key") ? "s" : "";
        found += archive->decodeBool("key") ? "b" : "";
        found += archive->decodeSize("key") ? "z" : "";
        found += archive->decodeString("key") ? "t" : "";
      }
      EXPECT_EQ(found, kinds) << json;
    }
  }
  EXPECT_EQ(makeKeyedUnarchiver("[]"), nullptr);
}

}  // namespace
}  // namespace zellive
