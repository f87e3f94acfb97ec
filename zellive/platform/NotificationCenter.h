#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace zellive {

/// Names of the notifications that the library posts or observes.
namespace notification {
/// The application's life cycle; the embedding application posts these.
inline constexpr const char* DidEnterBackground = "UIApplicationDidEnterBackgroundNotification";
inline constexpr const char* WillEnterForeground = "UIApplicationWillEnterForegroundNotification";
inline constexpr const char* WillResignActive = "UIApplicationWillResignActiveNotification";
inline constexpr const char* DidBecomeActive = "UIApplicationDidBecomeActiveNotification";
/// The screen is about to be turned; posted by the embedding application before it says so to the Device.
inline constexpr const char* WillChangeStatusBarOrientation = "UIApplicationWillChangeStatusBarOrientationNotification";
/// Posted by the memory monitor (or the application) when memory runs short.
inline constexpr const char* DidReceiveMemoryWarning = "UIApplicationDidReceiveMemoryWarningNotification";
/// Posted by the reachability service when its answer has changed.
inline constexpr const char* ReachabilityDidChange = "AFNetworkingReachabilityDidChangeNotification";
/// Posted by the send buffer at each judgement; user information "bufferAccumulateTime", seconds.
inline constexpr const char* LiveBufferAccumulateTime = "KLiveBufferAccumulateTimeNotification";
}  // namespace notification

using UserInfo = std::map<std::string, std::int64_t>;

/// Hands notifications to whoever observes them. Thread-safe.
class NotificationCenter {
 public:
  using Handler = std::function<void(const UserInfo&)>;

  /// An observation lasts as long as this object. A call under way on another thread is not waited for, so a handler
  /// holds its object weakly.
  class Observation {
   public:
    Observation() = default;
    Observation(Observation&&) noexcept = default;
    Observation& operator=(Observation&& other) noexcept;
    ~Observation();

   private:
    friend class NotificationCenter;
    struct Registry;
    std::weak_ptr<Registry> registry_;
    std::uint64_t id_ = 0;
  };

  NotificationCenter();

  /// Calls `handler` for each later notification of that name, on the thread that posts it.
  [[nodiscard]] Observation addObserver(std::string_view name, Handler handler);
  /// Calls every observer of `name` in the order in which they were added, on this thread, with no lock held.
  void post(std::string_view name, const UserInfo& userInfo = {});

 private:
  std::shared_ptr<Observation::Registry> registry_;
};

}  // namespace zellive
