#include <gtest/gtest.h>

#include <future>

#include "zellive/platform/Platform.h"

namespace zellive {
namespace {

TEST(DefaultPlatform, IsOneCompleteSetForTheWholeProcess) {
  const auto platform = defaultPlatform();
  EXPECT_EQ(platform, defaultPlatform());
  EXPECT_TRUE(platform->queues && platform->clock && platform->videoCompression && platform->audioConversion);
  EXPECT_GT(platform->device->physicalMemory(), std::uint64_t{64} << 20);
  EXPECT_EQ(platform->device->screenBounds(), (Size{1920, 1080}));
  int changes = 0;
  const auto observation =
      platform->notifications->addObserver(notification::ReachabilityDidChange, [&](const UserInfo&) { ++changes; });
  EXPECT_TRUE(platform->reachability->isReachable());
  for (const auto status : {ReachabilityStatus::ReachableViaWiFi, ReachabilityStatus::NotReachable,
                            ReachabilityStatus::NotReachable, ReachabilityStatus::ReachableViaWiFi}) {
    platform->reachability->setNetworkReachabilityStatus(status);
    EXPECT_EQ(platform->reachability->networkReachabilityStatus(), status);
  }
  EXPECT_EQ(changes, 2);
}

TEST(DefaultPlatform, LoggedOutAccountRefusesOnTheAnswerQueue) {
  const auto platform = defaultPlatform();
  const auto manager = platform->companion->loginManager();
  EXPECT_FALSE(manager->hasLogin());
  manager->activeAccount()->getLivePullUrlWithRoomId("room", {});  // Nobody waits for this one.
  std::promise<std::pair<std::uint64_t, bool>> answer;
  manager->activeAccount()->getLivePushUrlWithRoomId(
      "room", [&](const QMZError& error, std::uint64_t code, const std::optional<QMZDictionary>& response) {
        EXPECT_FALSE(error.message.empty() || response.has_value());
        answer.set_value({code, platform->queues->globalQueue()->isCurrent()});
      });
  EXPECT_EQ(answer.get_future().get(), std::pair(std::uint64_t{401}, true));
}

}  // namespace
}  // namespace zellive
