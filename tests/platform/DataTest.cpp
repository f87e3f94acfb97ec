#include "zellive/platform/Data.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace zellive {
namespace {

TEST(Data, SharesItsBytesAndRefersToNothingOnceMovedFrom) {
  std::vector<std::uint8_t> bytes{1, 2, 3};
  EXPECT_TRUE(Data::copyOf({}) && !Data());  // Empty is not absent.
  auto source = Data::copyOf(bytes);
  bytes[0] = 9;
  const Data copy = source;
  EXPECT_EQ(copy.bytes(), source.bytes());
  Data target = std::move(source);
  EXPECT_TRUE(!source && source.length() == 0);  // NOLINT(bugprone-use-after-move): this is what is tested.
  source = std::move(target);
  EXPECT_TRUE(!target && target.length() == 0 && source.length() == 3);  // NOLINT(bugprone-use-after-move)
  source = {};
  EXPECT_TRUE(copy.length() == 3 && copy.bytes()[0] == 1);
}

}  // namespace
}  // namespace zellive
