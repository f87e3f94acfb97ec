#pragma once

#include <memory>

#include "zellive/platform/Queue.h"

namespace zellive {

/// Queues on threads of their own: one for each serial queue, made at its first task and named after the end of its
/// label; a few for the global queue. These threads take no signal meant for the application, and a write to a broken
/// pipe on one of them cannot end the process.
[[nodiscard]] std::shared_ptr<QueueService> makeAsioQueues();

}  // namespace zellive
