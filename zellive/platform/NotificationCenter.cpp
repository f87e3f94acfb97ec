#include "zellive/platform/NotificationCenter.h"

#include <utility>
#include <vector>

namespace zellive {

struct NotificationCenter::Observation::Registry {
  struct Entry {
    std::string name;
    std::shared_ptr<const Handler> handler;
  };
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
  std::swap(registry_, other.registry_);
  std::swap(id_, other.id_);
  return *this;
}

NotificationCenter::NotificationCenter() : registry_(std::make_shared<Observation::Registry>()) {}

NotificationCenter::Observation NotificationCenter::addObserver(std::string_view name, Handler handler) {
  Observation observation;
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
  std::vector<std::shared_ptr<const Handler>> handlers;
  {
    const std::lock_guard lock(registry_->mutex);
    for (const auto& [id, entry] : registry_->entries) {
      if (entry.name == name) {
        handlers.push_back(entry.handler);
      }
    }
  }
  for (const auto& handler : handlers) {
    (*handler)(userInfo);
  }
}

}  // namespace zellive
