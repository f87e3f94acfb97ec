#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "zellive/platform/Platform.h"

namespace zellive {
namespace {

TEST(DefaultPlatform, IsOneCompleteSetForTheWholeProcess) {
  const auto platform = defaultPlatform();
  ASSERT_NE(platform, nullptr);
  EXPECT_EQ(platform, defaultPlatform());
  EXPECT_NE(platform->queues, nullptr);
  EXPECT_NE(platform->clock, nullptr);
  EXPECT_NE(platform->notifications, nullptr);
  EXPECT_NE(platform->videoCompression, nullptr);
  EXPECT_NE(platform->audioConversion, nullptr);
  EXPECT_GT(platform->device->physicalMemory(), std::uint64_t{64} << 20);
  EXPECT_EQ(platform->device->screenBounds(), (Size{1920, 1080}));
  EXPECT_TRUE(platform->reachability->isReachable());
}

TEST(DefaultPlatform, LoggedOutAccountRefusesOnTheAnswerQueue) {
  const auto platform = defaultPlatform();
  const auto manager = platform->companion->loginManager();
  EXPECT_FALSE(manager->hasLogin());
  std::promise<std::pair<std::uint64_t, bool>> answer;
  manager->activeAccount()->getLivePushUrlWithRoomId(
      "room", [&](const QMZError& error, std::uint64_t code, const std::optional<QMZDictionary>& response) {
        EXPECT_FALSE(error.message.empty());
        EXPECT_FALSE(response.has_value());
        answer.set_value({code, platform->queues->globalQueue()->isCurrent()});
      });
  const auto [code, onQueue] = answer.get_future().get();
  EXPECT_EQ(code, 401U);
  EXPECT_TRUE(onQueue);
  manager->activeAccount()->getLivePullUrlWithRoomId("room", {});  // Nobody waits for this one.
}

TEST(DefaultPlatform, ReachabilityTellsChangesOnly) {
  const auto platform = defaultPlatform();
  int changes = 0;
  const auto observation =
      platform->notifications->addObserver(notification::ReachabilityDidChange, [&](const UserInfo&) { ++changes; });
  for (const auto status : {ReachabilityStatus::ReachableViaWiFi, ReachabilityStatus::NotReachable,
                            ReachabilityStatus::NotReachable, ReachabilityStatus::ReachableViaWiFi}) {
    platform->reachability->setNetworkReachabilityStatus(status);
    EXPECT_EQ(platform->reachability->networkReachabilityStatus(), status);
  }
  EXPECT_EQ(changes, 2);
}

}  // namespace
}  // namespace zellive
