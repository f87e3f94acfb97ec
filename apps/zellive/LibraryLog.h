#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "apps/zellive/Output.h"
#include "apps/zellive/SessionEvents.h"

namespace zellive::tool {

/// Takes the library's messages over: shows those that matter to a person, hands those about the connection on, and
/// remembers the last error for the reason that the program ends with. Thread-safe.
class LibraryLog : public std::enable_shared_from_this<LibraryLog> {
 public:
  using Note = std::function<void(SessionEvents::Event)>;

  /// `note` is handed what is told of the connection, on the thread that tells it.
  LibraryLog(std::shared_ptr<Output> output, Note note) : output_(std::move(output)), note_(std::move(note)) {}

  /// Installs itself as the handler, to the end of the process: the library may speak until then.
  void install();

  /// No real device is in use: nobody needs to hear about the service that carries them. Before install().
  void ignoreHardware() { hasHardware_ = false; }
  /// Warnings are shown from now on: while a stream begins, the library warns of what is only late.
  void showWarnings();
  [[nodiscard]] std::string lastError() const;
  void receive(LogLevel level, std::string_view message);

 private:
  [[nodiscard]] bool handOn(std::string_view message);
  /// With mutex_ held.
  bool isRepeated(std::string_view message);

  const std::shared_ptr<Output> output_;
  const Note note_;
  bool hasHardware_ = true;
  mutable std::mutex mutex_;
  bool warnings_ = false;
  std::string lastError_;
  std::set<std::string, std::less<>> shown_;
};

}  // namespace zellive::tool
