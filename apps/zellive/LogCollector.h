#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "zellive/platform/Log.h"

namespace zellive::tool {

/// Keeps the library's complaints from being shown for as long as it lives, each remembered once. Thread-safe.
class LogCollector {
 public:
  /// Of `least` and graver; without those that begin with `but`, which outlives this.
  explicit LogCollector(LogLevel least, std::string_view but = "\n") {
    setLogHandler([kept = kept_, least, but](LogLevel level, std::string_view, int, std::string_view message) {
      message.remove_prefix(message.starts_with("Live: ") ? 6 : 0);
      if (level <= least && !message.starts_with(but)) {
        kept->add(message);
      }
    });
  }
  ~LogCollector() {
    if (!keeps_) {
      setLogHandler({});
    }
  }
  /// Goes on after its end, until somebody else takes the messages over.
  void keep() { keeps_ = true; }
  LogCollector(const LogCollector&) = delete;
  LogCollector& operator=(const LogCollector&) = delete;

  /// As text(), once something of it begins with `start`; empty when nothing has within `limit`.
  [[nodiscard]] std::string waitFor(std::string_view start, std::chrono::milliseconds limit) const {
    std::unique_lock lock(kept_->mutex);
    const auto told = [&] { return kept_->text.find(start) != std::string::npos; };
    return kept_->added.wait_for(lock, limit, told) ? kept_->text.substr(kept_->text.find(start)) : std::string();
  }
  /// Joined by "; ".
  [[nodiscard]] std::string text() const {
    const std::lock_guard lock(kept_->mutex);
    return kept_->text;
  }

 private:
  struct Kept {
    void add(std::string_view message) {
      const std::lock_guard lock(mutex);
      if (text.find(message) == std::string::npos) {
        text += (text.empty() ? "" : "; ") + std::string(message);
        added.notify_all();
      }
    }
    std::mutex mutex;
    std::condition_variable added;
    std::string text;
  };
  bool keeps_ = false;
  const std::shared_ptr<Kept> kept_ = std::make_shared<Kept>();
};

}  // namespace zellive::tool
