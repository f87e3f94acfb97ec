#include "zellive/platform/Data.h"

#include <gtest/gtest.h>

#include <array>
#include <utility>
#include <vector>

namespace zellive {
namespace {

TEST(Data, SharesItsBytesAndKeepsThemAlive) {
  std::array<std::uint8_t, 3> source{1, 2, 3};
  Data copy;
  {
    const auto original = Data::copyOf(source);
    copy = original;
    EXPECT_EQ(copy.bytes(), original.bytes());
  }
  source[0] = 9;
  EXPECT_EQ(std::vector<std::uint8_t>(copy.span().begin(), copy.span().end()), (std::vector<std::uint8_t>{1, 2, 3}));
}

TEST(Data, TellsAbsentFromEmpty) {
  EXPECT_FALSE(Data());
  const auto empty = Data::copyOf({});
  EXPECT_TRUE(empty);
  EXPECT_EQ(empty.length(), 0U);
}

TEST(Data, MovedFromRefersToNothing) {
  auto source = Data::copyOf(std::array<std::uint8_t, 2>{1, 2});
  Data target = std::move(source);
  EXPECT_EQ(source.length(), 0U);  // NOLINT(bugprone-use-after-move): this is what is tested.
  EXPECT_FALSE(source);
  source = std::move(target);
  EXPECT_EQ(target.length(), 0U);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(source.length(), 2U);
}

}  // namespace
}  // namespace zellive
