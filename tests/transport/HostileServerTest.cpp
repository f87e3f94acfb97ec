#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "zellive/transport/LibrtmpScope.h"
#include "zellive/transport/RtmpUrl.h"
#include "zellive/transport/ServerMessageCheck.h"

// What must not get as far as librtmp's decoder, and what must not get as far as a log.

namespace zellive::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kCommand = 20;
constexpr std::uint8_t kFlexCommand = 17;

Bytes join(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

Bytes times(std::size_t count, const Bytes& part) { return join(std::vector<Bytes>(count, part)); }

const Bytes kName{2, 0, 2, 'o', 'k'};
const Bytes kNumber{0, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0};
const Bytes kMember{0, 1, 'a'};  // A member's name.
const Bytes kEnd{0, 0, 9};

TEST(ServerMessageCheck, LetsWellFormedMessagesPass) {
  const std::vector<std::pair<const char*, Bytes>> commands{
      {"nothing", {}},
      {"values of every kind that has a decoder",
       join({kName, kNumber, {1, 1}, {5}, {6}, {13}, Bytes(11, 11), {12, 0, 0, 0, 1, 'x'}, {15, 0, 0, 0, 0}})},
      {"an object", join({kName, {3}, kMember, kName, kMember, {3}, kEnd, kEnd})},
      {"an object whose end is missing", join({kName, {3}, kMember, kNumber})},
      {"arrays", join({kName, {8, 0, 0, 0, 1}, kMember, {10, 0, 0, 0, 2, 5, 5}, kEnd})},
      {"as deep as the limit", join({kName, times(15, {10, 0, 0, 0, 1}), {5}})},
  };
  for (const auto& [name, body] : commands) {
    EXPECT_TRUE(isSafeToDecode(kCommand, body)) << name;
  }
  EXPECT_TRUE(isSafeToDecode(kFlexCommand, join({{0}, kName})));
  EXPECT_TRUE(isSafeToDecode(4, Bytes(6)));
  EXPECT_TRUE(isSafeToDecode(9, Bytes{0xFF})) << "not decoded";
}

TEST(ServerMessageCheck, HoldsMalformedMessagesBack) {
  const Bytes deepObjects = times(2000, {3, 0, 1, 'a'});
  const Bytes deepArrays = times(1600, {10, 0, 0, 0, 1});
  const std::vector<std::pair<const char*, Bytes>> commands{
      {"a number cut short", {0, 1, 2, 3}},
      {"a flag cut short", {1}},
      {"a string's length cut short", {2, 0}},
      {"a string beyond the end", {2, 0, 3, 'o', 'k'}},
      {"a long string of 4 GB", {12, 0xFF, 0xFF, 0xFF, 0xFF, 'x'}},
      {"a date cut short", Bytes(10, 11)},
      {"an object's name beyond the end", {3, 0, 9, 'a', 5}},
      {"a member of no value", {3, 0, 1, 'a'}},
      {"a member in three bytes", {3, 0, 0, 5}},
      {"an array's count cut short", {8, 0, 0}},
      {"more elements than there are", {10, 0xFF, 0xFF, 0xFF, 0xFF, 5}},
      {"one level too deep", join({times(16, {10, 0, 0, 0, 1}), {5}})},
      {"deep objects", deepObjects},
      {"deep arrays", deepArrays},
      {"AMF3", {17, 1}},
      {"an unknown marker", {0x42}},
  };
  for (const auto& [name, body] : commands) {
    EXPECT_FALSE(isSafeToDecode(kCommand, join({kName, body}))) << name;
    EXPECT_FALSE(isSafeToDecode(kFlexCommand, join({{0}, kName, body}))) << name;
  }
  EXPECT_FALSE(isSafeToDecode(kFlexCommand, Bytes{0}));
  for (const std::uint8_t type : {1, 3, 5, 6}) {
    EXPECT_FALSE(isSafeToDecode(type, Bytes(3))) << int{type};
  }
  EXPECT_FALSE(isSafeToDecode(4, Bytes(5)));
}

TEST(Secrets, NoReadingOfTheUrlShowsTheKey) {
  struct Case {
    std::string url;
    std::string text;
    std::string shown;
  };
  const std::string key(40, 'k');
  const std::vector<Case> cases{
      {"rtmp://host/live/thekey?sign=a/bcde", "app live/thekey?sign=a", "app live/***?***"},
      {"rtmp://host/live/thekey?sign=a/bcde", "name bcde of thekey", "name *** of ***"},
      {"rtmp://host/live?token=abc/thekey", "app live?token=abc, name thekey", "app live?***, name ***"},
      {"rtmp://host/live/" + key, "cut short: " + key.substr(0, 20), "cut short: ***"},
      {"rtmp://host/live/" + key, key + key + "!", "******!"},
      {"rtmp://host/live/a/b/thekey", "a/b/thekey", "a/b/***"},
  };
  for (const auto& [url, text, shown] : cases) {
    RtmpUrl parsed;
    ASSERT_EQ(parseRtmpUrl(url, parsed), "");
    EXPECT_EQ(maskSecrets(text, secretsOf(url, parsed)), shown);
  }
}

}  // namespace
}  // namespace zellive::test
