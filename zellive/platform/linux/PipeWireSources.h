#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "zellive/platform/AudioInput.h"
#include "zellive/platform/NotificationCenter.h"
#include "zellive/platform/Queue.h"
#include "zellive/platform/linux/PipeWireConnection.h"

namespace zellive {

/// The microphones that the PipeWire daemon has, which of them is the machine's own choice, and what is linked to them.
/// Posts the audio route notifications, on its queue:
///
/// - 1, a microphone has come; 2, one has gone; 7, the last one has gone, or there is none;
/// - 4, the machine's own choice has moved although the former one is still there.
///
/// It uses the connection from the first question on. Thread-safe, but for what is said to need the connection's lock.
class PipeWireSources : public PipeWireConnection::User, public std::enable_shared_from_this<PipeWireSources> {
 public:
  /// Called on the connection's thread, or in add(), with the lock held.
  class Listener {
   public:
    virtual ~Listener() = default;
    /// What there is has changed, the connection perhaps with it.
    virtual void sourcesChanged() = 0;
    /// The daemon has gone: what was made with it must be gone when this returns.
    virtual void sourcesLost() = 0;
  };

  /// `queue` is serial; people are told from it.
  [[nodiscard]] static std::shared_ptr<PipeWireSources> create(std::shared_ptr<PipeWireConnection> connection,
                                                               std::shared_ptr<Queue> queue,
                                                               std::shared_ptr<NotificationCenter> notifications);
  ~PipeWireSources() override;
  PipeWireSources(const PipeWireSources&) = delete;
  PipeWireSources& operator=(const PipeWireSources&) = delete;

  /// Connects if nobody has yet; without the lock.
  void use();
  /// Waits for the daemon's answer for a few seconds at most; not on the connection's thread.
  void awaitListing();
  /// After that answer. Real ones first, the
  /// machine's own choice before others of its kind. The name for programs is the node's.
  [[nodiscard]] std::vector<AudioInputDescription> list();

  [[nodiscard]] PipeWireConnection& connection() const { return *connection_; }
  [[nodiscard]] const std::shared_ptr<Queue>& queue() const { return queue_; }
  /// Posts a notification with one value, from the queue.
  void post(const char* name, const char* key, std::int64_t value);

  // With the connection's lock held, once it is in use.
  /// Listens from now on.
  void add(Listener& listener);
  void remove(Listener& listener) { std::erase(listeners_, &listener); }
  [[nodiscard]] bool isConnected() const { return connected_; }
  [[nodiscard]] bool empty() const { return nodes_.empty(); }
  [[nodiscard]] bool has(std::string_view name) const;
  /// By its name for people; the name itself where there is no such microphone.
  [[nodiscard]] std::string localizedName(std::string_view name) const;
  /// The machine's own choice; empty while nobody chooses.
  [[nodiscard]] const std::string& defaultName() const { return defaultName_; }
  /// Whether there is a session manager, which links streams to microphones.
  [[nodiscard]] bool isManaged() const { return metadata_ != nullptr; }
  /// The microphone from which the node gets its sound; empty for none.
  [[nodiscard]] std::string linkedTo(std::uint32_t node) const;

 private:
  class Node;
  class Metadata;
  /// What was there when it was last looked at in peace.
  struct Settled {
    std::set<std::string> names;
    std::string defaultName;
  };

  PipeWireSources(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<Queue> queue,
                  std::shared_ptr<NotificationCenter> notifications);
  void connectionMade() override;
  void connectionLost() override;
  void objectAppeared(const PipeWireObject& object) override;
  void objectVanished(std::uint32_t id) override;
  void changed();
  void settle();
  [[nodiscard]] static std::vector<std::int64_t> reasons(const std::optional<Settled>& before, const Settled& now);

  const std::shared_ptr<PipeWireConnection> connection_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<NotificationCenter> notifications_;

  std::once_flag use_;
  std::atomic<bool> used_{false};  // Only a connection that has been started has a lock.

  // Guarded by the connection's lock.
  bool connected_ = false;  // The core is there a little longer than may be used.
  bool settling_ = false;
  std::vector<Listener*> listeners_;
  std::map<std::uint32_t, std::unique_ptr<Node>> nodes_;
  std::unique_ptr<Metadata> metadata_;
  std::string defaultName_;
  struct Ends {
    std::uint32_t output = 0;
    std::uint32_t input = 0;
  };
  std::map<std::uint32_t, Ends> links_;
  std::optional<Settled> settled_;
};

}  // namespace zellive
