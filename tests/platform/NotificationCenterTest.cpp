#include "zellive/platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/Event.h"

namespace zellive {
namespace {

TEST(NotificationCenter, CallsTheObserversOfOneNameInOrderUntilTheirObservationsEnd) {
  NotificationCenter center;
  std::string calls;
  std::vector<NotificationCenter::Observation> observations;
  for (const char letter : {'a', 'b', 'c'}) {
    observations.push_back(center.addObserver("name", [&calls, letter](const UserInfo&) { calls += letter; }));
  }
  const auto other = center.addObserver("other", [&](const UserInfo& info) { calls += std::to_string(info.at("x")); });
  const auto empty = center.addObserver("name", {});
  center.post("name");
  center.post("nobody");
  center.post("other", {{"x", 7}});
  auto moved = std::move(observations[1]);
  observations[0] = std::move(moved);  // Ends what it observed so far, although `moved` still exists.
  center.post("name");
  observations.clear();
  center.post("name");
  EXPECT_EQ(calls, "abc7bc");
}

TEST(NotificationCenter, HandlersMayChangeOrDestroyTheCentreThatCallsThem) {
  auto center = std::make_unique<NotificationCenter>();
  std::string calls;
  NotificationCenter::Observation next;
  NotificationCenter::Observation added;
  NotificationCenter::Observation own = center->addObserver("name", [&](const UserInfo&) {
    calls += "own ";
    own = {};
    next = {};
    added = center->addObserver("name", [&](const UserInfo&) {
      calls += "added ";
      center.reset();
    });
  });
  next = center->addObserver("name", [&](const UserInfo&) { calls += "next "; });
  const auto last = center->addObserver("name", [&](const UserInfo&) { calls += "last "; });
  center->post("name");
  EXPECT_EQ(calls, "own last ");
  center->post("name");
  EXPECT_EQ(calls, "own last last added ");
}

TEST(NotificationCenter, PostsRaceWithObserversThatComeAndGo) {
  NotificationCenter center;
  int calls = 0;
  const auto constant = center.addObserver("name", [&](const UserInfo&) { ++calls; });
  const auto observe = [&] {
    // The handler owns memory that only lives as long as the centre holds the handler.
    auto owned = std::make_shared<int>(0);
    const auto observation = center.addObserver("name", [owned](const UserInfo&) { (void)owned.use_count(); });
  };
  test::whileMeddling(observe, [&] {
    for (int i = 0; i < 2000; ++i) {
      center.post("name");
    }
  });
  EXPECT_EQ(calls, 2000);
}

}  // namespace
}  // namespace zellive
