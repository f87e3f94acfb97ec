#include "zellive/platform/linux/PipeWireConnection.h"

#include <pipewire/pipewire.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

constexpr timespec kRetryTime{1, 0};
/// From the connection to the end of the listing, which takes milliseconds where the daemon lets us in.
constexpr timespec kListingTime{5, 0};
/// The daemon lists its objects by the first answer, what they are by the second, and what they can do by the third.
constexpr int kListingRounds = 3;

pw_thread_loop* makeThread() {
  static std::once_flag once;
  std::call_once(once, [] { pw_init(nullptr, nullptr); });
  return pw_thread_loop_new("zellive.pipewire", nullptr);
}

}  // namespace

PipeWireProperties propertiesOf(const spa_dict* dictionary) {
  PipeWireProperties properties;
  for (std::uint32_t i = 0; dictionary != nullptr && i < dictionary->n_items; ++i) {
    const spa_dict_item& item = dictionary->items[i];
    if (item.key != nullptr && item.value != nullptr) {
      properties.emplace(item.key, item.value);
    }
  }
  return properties;
}

std::string PipeWireObject::property(std::string_view name) const {
  const auto found = properties.find(name);
  return found == properties.end() ? std::string() : found->second;
}

/// What lives on the thread. Everything with the lock held.
class PipeWireConnection::Link {
 public:
  explicit Link(PipeWireConnection& owner) : owner_(owner), thread_(makeThread()) {
    if (thread_ == nullptr) {
      return;
    }
    context_ = pw_context_new(pw_thread_loop_get_loop(thread_), nullptr, 0);
    retry_ = pw_loop_add_timer(
        loop(), [](void* self, std::uint64_t) { static_cast<Link*>(self)->connect(); }, this);
    drop_ = pw_loop_add_event(
        loop(), [](void* self, std::uint64_t) { static_cast<Link*>(self)->drop(); }, this);
    unanswered_ = pw_loop_add_timer(
        loop(), [](void* self, std::uint64_t) { static_cast<Link*>(self)->tellUnanswered(); }, this);
    runs_ = context_ != nullptr && retry_ != nullptr && drop_ != nullptr && unanswered_ != nullptr &&
            pw_thread_loop_start(thread_) == 0;
  }

  ~Link() {
    if (thread_ == nullptr) {
      return;
    }
    pw_thread_loop_stop(thread_);
    disconnect();
    for (spa_source* const source : {retry_, drop_, unanswered_}) {
      if (source != nullptr) {
        pw_loop_destroy_source(loop(), source);
      }
    }
    if (context_ != nullptr) {
      pw_context_destroy(context_);
    }
    pw_thread_loop_destroy(thread_);
  }

  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  [[nodiscard]] pw_loop* loop() const { return pw_thread_loop_get_loop(thread_); }
  [[nodiscard]] pw_core* core() const { return core_; }
  [[nodiscard]] pw_registry* registry() const { return registry_; }
  [[nodiscard]] bool onThread() const { return thread_ != nullptr && pw_thread_loop_in_thread(thread_); }
  void lock() const {
    if (thread_ != nullptr) {
      pw_thread_loop_lock(thread_);
    }
  }
  void unlock() const {
    if (thread_ != nullptr) {
      pw_thread_loop_unlock(thread_);
    }
  }

  void add(User& user) {
    users_.push_back(&user);
    if (core_ != nullptr && broken_ == 0) {
      user.connectionMade();
      for (const auto& [id, object] : objects_) {
        user.objectAppeared(object);
      }
      beginListing();  // What this user has asked is to be waited for as well.
    } else if (users_.size() == 1 && core_ == nullptr) {
      connect();
    }
  }

  void remove(User& user) {
    std::erase(users_, &user);
    if (users_.empty() && runs_) {
      pw_loop_signal_event(loop(), drop_);
    }
  }

 private:
  void connect() {
    if (users_.empty() || core_ != nullptr) {
      return;
    }
    if (!runs_) {
      tellAway(
          "cannot be used: its library does not start for want of descriptors, threads or plug-ins; there are no "
          "cameras and microphones of the machine's");
      owner_.setListing(Listing::Done);
      return;
    }
    core_ = pw_context_connect(context_, nullptr, 0);
    if (core_ == nullptr) {
      tellAway(errno);
      owner_.setListing(Listing::Done);
      tryLater();
      return;
    }
    pw_core_add_listener(core_, &coreHook_, &kCoreEvents, this);
    registry_ = pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(registry_, &registryHook_, &kRegistryEvents, this);
    broken_ = 0;
    tellUsers([](User& user) { user.connectionMade(); });
    beginListing();
  }

  void beginListing() {
    rounds_ = 0;
    owner_.setListing(Listing::Under);
    round_ = pw_core_sync(core_, PW_ID_CORE, 0);
    set(unanswered_, kListingTime);
  }

  /// Not in events of the core, which it destroys.
  void drop() {
    if (core_ == nullptr || (broken_ == 0 && !users_.empty())) {
      return;
    }
    const int error = broken_;
    disconnect();
    owner_.setListing(Listing::Done);
    if (error != 0) {
      tellAway(error);
      tryLater();
    }
  }

  void disconnect() {
    if (core_ == nullptr) {
      return;
    }
    set(unanswered_, {});
    objects_.clear();
    tellUsers([](User& user) { user.connectionLost(); });
    spa_hook_remove(&registryHook_);
    spa_hook_remove(&coreHook_);
    pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
    pw_core_disconnect(core_);
    core_ = nullptr;
    registry_ = nullptr;
    broken_ = 0;
  }

  void tryLater() { set(retry_, kRetryTime); }

  /// No time at all: not any more.
  void set(spa_source* timer, timespec value) { pw_loop_update_timer(loop(), timer, &value, nullptr, false); }

  void listed(int round) {
    if (round != round_) {
      return;
    }
    if (++rounds_ < kListingRounds) {
      round_ = pw_core_sync(core_, PW_ID_CORE, round);
      return;
    }
    set(unanswered_, {});
    owner_.setListing(Listing::Done);
    if (std::exchange(away_, false)) {
      tell(LogLevel::Information, "Live: PipeWire is there again");
    }
  }

  void tellAway(int error) {
    std::string reason = "is not running";
    if (error == EPIPE) {
      reason = "has ended";
    } else if (error == EACCES || error == EPERM) {
      reason = "may not be used: permission is refused";
    } else if (error != ENOENT && error != ECONNREFUSED && error != EHOSTDOWN) {
      reason = std::string("cannot be reached: ") + std::strerror(error);
    }
    tellAway(reason +
             "; the machine's cameras and microphones are missing until it answers, which is tried each second");
  }

  void tellUnanswered() {
    owner_.setListing(Listing::Done);
    tellAway(
        "tells this program nothing, which as a rule means that permission is refused; the machine's cameras and "
        "microphones are missing until it does");
  }

  void tellAway(const std::string& words) {
    if (!std::exchange(away_, true)) {
      tell(LogLevel::Warning, "Live: PipeWire " + words);
    }
  }

  /// Elsewhere, as whoever reads the line may call the library.
  void tell(LogLevel level, std::string message) {
    owner_.queue_->async(
        [level, message = std::move(message)] { QMZPrintLog(level, "PipeWireConnection", __LINE__, message); });
  }

  void tellUsers(const auto& call) {
    for (User* user : std::vector(users_)) {
      if (std::find(users_.begin(), users_.end(), user) != users_.end()) {
        call(*user);
      }
    }
  }

  void appeared(PipeWireObject object) {
    const auto id = object.id;
    const PipeWireObject& kept = objects_.insert_or_assign(id, std::move(object)).first->second;
    tellUsers([&](User& user) { user.objectAppeared(kept); });
  }

  void vanished(std::uint32_t id) {
    if (objects_.erase(id) > 0) {
      tellUsers([&](User& user) { user.objectVanished(id); });
    }
  }

  void broke(int error) {
    broken_ = error;
    pw_loop_signal_event(loop(), drop_);
  }

  static const pw_core_events kCoreEvents;
  static const pw_registry_events kRegistryEvents;

  PipeWireConnection& owner_;
  pw_thread_loop* const thread_;
  pw_context* context_ = nullptr;
  spa_source* retry_ = nullptr;
  spa_source* drop_ = nullptr;
  spa_source* unanswered_ = nullptr;
  pw_core* core_ = nullptr;
  pw_registry* registry_ = nullptr;
  spa_hook coreHook_{};
  spa_hook registryHook_{};
  bool runs_ = false;  // There is a thread to talk to the daemon.
  int broken_ = 0;     // The error with which the daemon has gone, and the core not yet.
  bool away_ = false;  // People have been told so.
  int round_ = 0;
  int rounds_ = 0;
  std::vector<User*> users_;
  std::map<std::uint32_t, PipeWireObject> objects_;
};

const pw_core_events PipeWireConnection::Link::kCoreEvents = {
    .version = PW_VERSION_CORE_EVENTS,
    .info = nullptr,
    .done =
        [](void* self, std::uint32_t id, int round) {
          if (id == PW_ID_CORE) {
            static_cast<Link*>(self)->listed(round);
          }
        },
    .ping = nullptr,
    .error =
        [](void* self, std::uint32_t id, int /*round*/, int error, const char* /*message*/) {
          if (id == PW_ID_CORE && (error == -EPIPE || error == -EACCES || error == -EPERM)) {
            static_cast<Link*>(self)->broke(-error);
          }
        },
    .remove_id = nullptr,
    .bound_id = nullptr,
    .add_mem = nullptr,
    .remove_mem = nullptr,
};

const pw_registry_events PipeWireConnection::Link::kRegistryEvents = {
    .version = PW_VERSION_REGISTRY_EVENTS,
    .global =
        [](void* self, std::uint32_t id, std::uint32_t /*permissions*/, const char* type, std::uint32_t version,
           const spa_dict* properties) {
          static_cast<Link*>(self)->appeared({id, type, version, propertiesOf(properties)});
        },
    .global_remove = [](void* self, std::uint32_t id) { static_cast<Link*>(self)->vanished(id); },
};

PipeWireConnection::Lock::Lock(PipeWireConnection& connection) : connection_(connection) { connection_.link_->lock(); }
PipeWireConnection::Lock::~Lock() { connection_.link_->unlock(); }

PipeWireConnection::PipeWireConnection(std::shared_ptr<Queue> queue) : queue_(std::move(queue)) {}

PipeWireConnection::~PipeWireConnection() = default;

void PipeWireConnection::start() {
  std::call_once(started_, [this] { link_ = std::make_unique<Link>(*this); });
}

void PipeWireConnection::add(User& user) {
  start();
  const Lock lock(*this);
  link_->add(user);
}

void PipeWireConnection::remove(User& user) {
  const Lock lock(*this);
  link_->remove(user);
}

bool PipeWireConnection::waitUntilListed(std::chrono::milliseconds limit) {
  {
    std::unique_lock lock(listingMutex_);
    if (!listingChanged_.wait_for(lock, limit, [this] { return listing_ == Listing::Done; })) {
      return false;
    }
  }
  const Lock lock(*this);
  return core() != nullptr;
}

void PipeWireConnection::setListing(Listing listing) {
  const std::lock_guard lock(listingMutex_);
  listing_ = listing;
  listingChanged_.notify_all();
}

pw_core* PipeWireConnection::core() const { return link_->core(); }
pw_registry* PipeWireConnection::registry() const { return link_->registry(); }
pw_loop* PipeWireConnection::loop() const { return link_->loop(); }

}  // namespace zellive
