#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "zellive/platform/Queue.h"

struct pw_core;
struct pw_loop;
struct pw_registry;
struct spa_dict;

namespace zellive {

using PipeWireProperties = std::map<std::string, std::string, std::less<>>;

[[nodiscard]] PipeWireProperties propertiesOf(const spa_dict* dictionary);

/// Something that the daemon has: a node, a device, a link …
struct PipeWireObject {
  std::uint32_t id = 0;  ///< While the object lives; another one may have it later.
  std::string type;      ///< PW_TYPE_INTERFACE_Node and the like.
  std::uint32_t version = 0;
  /// The few that the daemon lists; the rest comes with the object's own information.
  PipeWireProperties properties;

  /// Empty when there is none of the name.
  [[nodiscard]] std::string property(std::string_view name) const;
};

/// The library's connection to the PipeWire daemon that the environment names, with a thread of its own. It is made
/// with the first user and given up after the last. A daemon that is not there, or dies, is tried again each second;
/// people are told once when it is away and once when it is back.
///
/// Thread-safe, but for what is said to need the lock. Destroyed after its users.
class PipeWireConnection {
 public:
  /// Called on the connection's thread, or in add(), with the lock held; must neither block nor log. It may make and
  /// destroy proxies and streams here, but no stream in that stream's own events.
  class User {
   public:
    virtual ~User() = default;
    /// There is a core from now on.
    virtual void connectionMade() {}
    /// The daemon has gone, with every object of it. The user's proxies and streams must be gone when this returns.
    virtual void connectionLost() {}
    virtual void objectAppeared(const PipeWireObject& /*object*/) {}
    virtual void objectVanished(std::uint32_t /*id*/) {}
  };

  /// Keeps the connection's thread out; may be nested. To be taken by users only, and without locks of their own that
  /// their calls above take.
  class Lock {
   public:
    explicit Lock(PipeWireConnection& connection);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    PipeWireConnection& connection_;
  };

  /// `queue` is the one from which people are told.
  explicit PipeWireConnection(std::shared_ptr<Queue> queue);
  ~PipeWireConnection();
  PipeWireConnection(const PipeWireConnection&) = delete;
  PipeWireConnection& operator=(const PipeWireConnection&) = delete;

  /// Tells the user about all that is there, and about what changes from now on.
  void add(User& user);
  /// No call of the user begins afterwards, unless this is one. What it made with the core must be gone.
  void remove(User& user);
  /// Waits, not on the connection's thread, until the daemon has listed what it has, and has answered what users asked
  /// about it at once. False where there is no daemon, or none that answers within `limit`. Of users only.
  [[nodiscard]] bool waitUntilListed(std::chrono::milliseconds limit);

  // With the lock held. Null while there is no daemon.
  [[nodiscard]] pw_core* core() const;
  [[nodiscard]] pw_registry* registry() const;
  // With the lock held; for timers and events of users.
  [[nodiscard]] pw_loop* loop() const;

 private:
  class Link;
  enum class Listing { Never, Under, Done };

  void start();
  void setListing(Listing listing);

  const std::shared_ptr<Queue> queue_;
  std::mutex listingMutex_;
  std::condition_variable listingChanged_;
  Listing listing_ = Listing::Never;

  std::once_flag started_;
  std::unique_ptr<Link> link_;  // The last, as its thread uses the others to its end.
};

}  // namespace zellive
