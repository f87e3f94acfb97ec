#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/transport/Fixtures.h"
#include "zellive/transport/LibrtmpScope.h"
#include "zellive/transport/RtmpUrl.h"
#include "zellive/transport/ServerMessageCheck.h"

// What must not get as far as librtmp's decoder, and what must not get as far as a log.

namespace zellive::test {
namespace {

constexpr std::uint8_t kCommand = 20;
constexpr std::uint8_t kFlexCommand = 17;

Bytes times(std::size_t count, const Bytes& part) { return join(std::vector<Bytes>(count, part)); }

const Bytes kName{2, 0, 2, 'o', 'k'};
const Bytes kNumber{0, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0};
const Bytes kMember{0, 1, 'a'};  // A member's name.
const Bytes kEnd{0, 0, 9};
const Bytes kArray{10, 0, 0, 0, 1};  // Of one element.

TEST(ServerMessageCheck, TellsWellFormedMessagesFromMalformedOnes) {
  struct Case {
    const char* what;
    bool safe;
    Bytes body;
  };
  const std::vector<Case> commands{
      {"nothing", true, {}},
      {"every kind that has a decoder", true,
       join({kNumber, {1, 1}, {5}, {6}, {13}, Bytes(11, 11), {12, 0, 0, 0, 1, 'x'}, {15, 0, 0, 0, 0}})},
      {"an object", true, join({{3}, kMember, kName, kMember, {3}, kEnd, kEnd})},
      {"an object whose end is missing", true, join({{3}, kMember, kNumber})},
      {"arrays", true, join({{8, 0, 0, 0, 1}, kMember, {10, 0, 0, 0, 2, 5, 5}, kEnd})},
      {"as deep as the limit", true, join({times(15, kArray), {5}})},
      {"one level too deep", false, join({times(16, kArray), {5}})},
      {"deep objects", false, times(2000, {3, 0, 1, 'a'})},
      {"deep arrays", false, times(1600, kArray)},
      {"a number cut short", false, {0, 1, 2, 3}},
      {"a flag cut short", false, {1}},
      {"a string's length cut short", false, {2, 0}},
      {"a string beyond the end", false, {2, 0, 3, 'o', 'k'}},
      {"a long string of 4 GB", false, {12, 0xFF, 0xFF, 0xFF, 0xFF, 'x'}},
      {"a date cut short", false, Bytes(10, 11)},
      {"an object's name beyond the end", false, {3, 0, 9, 'a', 5}},
      {"a member of no value", false, {3, 0, 1, 'a'}},
      {"a member in three bytes", false, {3, 0, 0, 5}},
      {"an array's count cut short", false, {8, 0, 0}},
      {"more elements than there are", false, {10, 0xFF, 0xFF, 0xFF, 0xFF, 5}},
      {"AMF3", false, {17, 1}},
      {"an unknown marker", false, {0x42}},
  };
  for (const auto& [what, safe, body] : commands) {
    EXPECT_EQ(isSafeToDecode(kCommand, join({kName, body})), safe) << what;
    EXPECT_EQ(isSafeToDecode(kFlexCommand, join({{0}, kName, body})), safe) << what;
  }
  const std::vector<std::pair<std::uint8_t, std::size_t>> least{{1, 4}, {3, 4}, {5, 4}, {6, 4}, {4, 6}};
  for (const auto& [type, size] : least) {
    EXPECT_FALSE(isSafeToDecode(type, Bytes(size - 1))) << int{type};
  }
  EXPECT_FALSE(isSafeToDecode(kFlexCommand, Bytes{0}));
  EXPECT_TRUE(isSafeToDecode(4, Bytes(6)));
  EXPECT_TRUE(isSafeToDecode(kCommand, Bytes()));
  EXPECT_TRUE(isSafeToDecode(9, Bytes{0xFF})) << "not decoded";
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
