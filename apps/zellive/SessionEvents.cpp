#include "apps/zellive/SessionEvents.h"

#include <utility>

namespace zellive::tool {

SessionEvents::Batch SessionEvents::take() {
  const std::lock_guard lock(mutex_);
  return std::exchange(batch_, {});
}

template <typename Change>
void SessionEvents::add(Change change) {
  {
    const std::lock_guard lock(mutex_);
    change(batch_);
  }
  waker_->wake();
}

void SessionEvents::note(Event event) {
  add([&](Batch& batch) { batch.events.push_back(std::move(event)); });
}

void SessionEvents::liveSessionLiveStateDidChange(ZelLiveSession&, std::uint64_t state) {
  note({Event::Kind::State, static_cast<std::int64_t>(state), {}});
}

void SessionEvents::liveSessionErrorCode(ZelLiveSession&, std::uint64_t code) {
  note({Event::Kind::Error, static_cast<std::int64_t>(code), {}});
}

void SessionEvents::liveSessionLiveBufferCount(ZelLiveSession&, std::uint64_t count) {
  add([&](Batch& batch) { batch.bufferCount = count; });
}

void SessionEvents::liveSessionDebugInfo(ZelLiveSession&, const ZelLiveDebug& info) {
  add([&](Batch& batch) { batch.report = Batch::Report{info, Waker::now()}; });
}

}  // namespace zellive::tool
