#include <gtest/gtest.h>

#include <vector>

#include "tests/transport/Fixtures.h"
#include "zellive/transport/ServerMessageCheck.h"

// What must not get as far as librtmp's decoder.

namespace zellive::test {
namespace {

constexpr std::uint8_t kCommand = 20;
constexpr std::uint8_t kFlexCommand = 17;

TEST(ServerMessageCheck, TellsWellFormedMessagesFromMalformedOnes) {
  const Bytes name{2, 0, 2, 'o', 'k'};
  const Bytes number{0, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0};
  const Bytes member{0, 1, 'a'};  // A member's name.
  const Bytes end{0, 0, 9};
  const Bytes array{10, 0, 0, 0, 1};  // Of one element.
  struct Case {
    const char* what;
    bool safe;
    Bytes body;
  };
  const std::vector<Case> commands{
      {"nothing", true, {}},
      {"every kind that has a decoder", true,
       join({number, {1, 1}, {5}, {6}, {13}, Bytes(11, 11), {12, 0, 0, 0, 1, 'x'}, {15, 0, 0, 0, 0}})},
      {"an object", true, join({{3}, member, name, member, {3}, end, end})},
      {"an object whose end is missing", true, join({{3}, member, number})},
      {"arrays", true, join({{8, 0, 0, 0, 1}, member, {10, 0, 0, 0, 2, 5, 5}, end})},
      {"as deep as the limit", true, join({join(std::vector(15, array)), {5}})},
      {"one level too deep", false, join({join(std::vector(16, array)), {5}})},
      {"deep objects", false, join(std::vector(2000, Bytes{3, 0, 1, 'a'}))},
      {"a number cut short", false, {0, 1, 2, 3}},
      {"a string's length cut short", false, {2, 0}},
      {"a string beyond the end", false, {2, 0, 3, 'o', 'k'}},
      {"a long string of 4 GB", false, {12, 0xFF, 0xFF, 0xFF, 0xFF, 'x'}},
      {"a member of no value", false, {3, 0, 1, 'a'}},
      {"a member in three bytes", false, {3, 0, 0, 5}},
      {"more elements than there are", false, {10, 0xFF, 0xFF, 0xFF, 0xFF, 5}},
      {"AMF3", false, {17, 1}},
  };
  for (const auto& [what, safe, body] : commands) {
    EXPECT_EQ(isSafeToDecode(kCommand, join({name, body})), safe) << what;
    EXPECT_EQ(isSafeToDecode(kFlexCommand, join({{0}, name, body})), safe) << what;
  }
  for (const std::uint8_t type : {1, 3, 5, 6, 4}) {
    EXPECT_FALSE(isSafeToDecode(type, Bytes(type == 4 ? 5 : 3))) << int{type};
    EXPECT_TRUE(isSafeToDecode(type, Bytes(type == 4 ? 6 : 4))) << int{type};
  }
  EXPECT_FALSE(isSafeToDecode(kFlexCommand, Bytes{0}));
  EXPECT_TRUE(isSafeToDecode(9, Bytes{0xFF})) << "not decoded";
}

}  // namespace
}  // namespace zellive::test
