#include "zellive/platform/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace zellive {
namespace {

TEST(NotificationCenter, CallsTheObserversOfOneNameInOrder) {
  NotificationCenter center;
  std::string calls;
  std::vector<NotificationCenter::Observation> observations;
  for (const char letter : {'a', 'b', 'c'}) {
    observations.push_back(center.addObserver("name", [&calls, letter](const UserInfo&) { calls += letter; }));
  }
  const auto other = center.addObserver("other", [&](const UserInfo& info) { calls += std::to_string(info.at("x")); });
  center.post("name");
  center.post("nobody");
  center.post("other", {{"x", 7}});
  observations.erase(observations.begin() + 1);
  center.post("name");
  EXPECT_EQ(calls, "abc7ac");
}

TEST(NotificationCenter, ObservationEndsWithItsObjectWhateverHasMoved) {
  NotificationCenter center;
  int first = 0;
  int second = 0;
  auto observation = center.addObserver("name", [&](const UserInfo&) { ++first; });
  auto later = center.addObserver("name", [&](const UserInfo&) { ++second; });
  center.post("name");
  observation = std::move(later);  // Ends the first although `later` still exists.
  center.post("name");
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 2);
  observation = {};
  center.post("name");
  EXPECT_EQ(second, 2);
}

TEST(NotificationCenter, HandlersMayChangeTheCentreThatCallsThem) {
  auto center = std::make_unique<NotificationCenter>();
  std::string calls;
  NotificationCenter::Observation own;
  NotificationCenter::Observation next;
  NotificationCenter::Observation added;
  own = center->addObserver("name", [&](const UserInfo&) {
    calls += "own ";
    own = {};
    next = {};
    added = center->addObserver("name", [&](const UserInfo&) { calls += "added "; });
  });
  next = center->addObserver("name", [&](const UserInfo&) { calls += "next "; });
  const auto last = center->addObserver("name", [&](const UserInfo&) { calls += "last "; });
  center->post("name");
  EXPECT_EQ(calls, "own last ");
  center->post("name");
  EXPECT_EQ(calls, "own last last added ");
}

TEST(NotificationCenter, MayGoBeforeItsObservationsAndDuringACall) {
  auto center = std::make_unique<NotificationCenter>();
  int calls = 0;
  const auto observation = center->addObserver("name", [&](const UserInfo&) {
    ++calls;
    center.reset();
  });
  const auto after = center->addObserver("name", [&](const UserInfo&) { ++calls; });
  center->post("name");
  EXPECT_EQ(calls, 2);
}

TEST(NotificationCenter, EmptyHandlerIsNotCalled) {
  NotificationCenter center;
  const auto observation = center.addObserver("name", {});
  EXPECT_NO_THROW(center.post("name"));
}

TEST(NotificationCenter, PostsRaceWithObserversThatComeAndGo) {
  NotificationCenter center;
  std::atomic<int> calls = 0;
  std::atomic<bool> done = false;
  const auto constant = center.addObserver("name", [&](const UserInfo&) { ++calls; });
  std::vector<std::thread> observers;
  for (int i = 0; i < 2; ++i) {
    observers.emplace_back([&] {
      while (!done) {
        // The handler owns memory that only lives as long as the centre holds the handler.
        auto owned = std::make_shared<int>(0);
        const auto observation = center.addObserver("name", [owned](const UserInfo&) { (void)owned.use_count(); });
      }
    });
  }
  for (int i = 0; i < 2000; ++i) {
    center.post("name");
  }
  done = true;
  for (auto& thread : observers) {
    thread.join();
  }
  EXPECT_EQ(calls, 2000);
}

}  // namespace
}  // namespace zellive
