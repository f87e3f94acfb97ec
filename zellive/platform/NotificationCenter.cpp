#include "zellive/platform/NotificationCenter.h"

#include <utility>
#include <vector>

namespace zellive {

struct NotificationCenter::Observation::Registry {
  struct Entry {
    std::string name;
    std::shared_ptr<const Handler> handler;
  };
  [[nodiscard]] bool contains(std::uint64_t id) {
    const std::lock_guard lock(mutex);
    return entries.contains(id);
  }

  std::mutex mutex;
  std::uint64_t nextId = 1;
  std::map<std::uint64_t, Entry> entries;
};

NotificationCenter::Observation::~Observation() {
  if (auto registry = registry_.lock()) {
    // The handler is destroyed after the lock is released: what it owns may call back into the centre.
    std::shared_ptr<const Handler> dropped;
    const std::lock_guard lock(registry->mutex);
    if (auto entry = registry->entries.extract(id_)) {
      dropped = std::move(entry.mapped().handler);
    }
  }
}

NotificationCenter::Observation& NotificationCenter::Observation::operator=(Observation&& other) noexcept {
  // What this observed so far ends here, not when `other` goes.
  Observation taken(std::move(other));
  std::swap(registry_, taken.registry_);
  std::swap(id_, taken.id_);
  return *this;
}

NotificationCenter::NotificationCenter() : registry_(std::make_shared<Observation::Registry>()) {}

NotificationCenter::Observation NotificationCenter::addObserver(std::string_view name, Handler handler) {
  Observation observation;
  if (!handler) {
    return observation;
  }
  observation.registry_ = registry_;
  const std::lock_guard lock(registry_->mutex);
  observation.id_ = registry_->nextId++;
  registry_->entries.emplace(observation.id_, Observation::Registry::Entry{
                                                  std::string(name),
                                                  std::make_shared<const Handler>(std::move(handler)),
                                              });
  return observation;
}

void NotificationCenter::post(std::string_view name, const UserInfo& userInfo) {
  const auto registry = registry_;  // A handler may destroy the centre.
  std::vector<std::pair<std::uint64_t, std::shared_ptr<const Handler>>> observers;
  {
    const std::lock_guard lock(registry->mutex);
    for (const auto& [id, entry] : registry->entries) {
      if (entry.name == name) {
        observers.emplace_back(id, entry.handler);
      }
    }
  }
  for (const auto& [id, handler] : observers) {
    if (registry->contains(id)) {  // An earlier handler may have ended this observation.
      (*handler)(userInfo);
    }
  }
}

}  // namespace zellive
