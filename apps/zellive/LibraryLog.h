#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

#include "apps/zellive/Output.h"

namespace zellive::tool {

/// Takes the library's messages over: shows those that matter to a person, and remembers the last failure for the
/// reason that the program ends with. Thread-safe.
class LibraryLog : public std::enable_shared_from_this<LibraryLog> {
 public:
  explicit LibraryLog(std::shared_ptr<Output> output) : output_(std::move(output)) {}

  /// Installs itself as the handler, to the end of the process: the library may speak until then.
  void install();

  /// Warnings are shown from now on: while a stream begins, the library warns of what is only late.
  void showWarnings();
  /// Why the last connection failed or could not be made; empty when there is one.
  [[nodiscard]] std::string lastConnectError() const;
  [[nodiscard]] std::string lastError() const;
  void receive(LogLevel level, std::string_view message);

 private:
  /// With mutex_ held.
  bool isRepeated(std::string_view message);

  const std::shared_ptr<Output> output_;
  mutable std::mutex mutex_;
  bool warnings_ = false;
  std::string lastConnectError_;
  std::string lastError_;
  std::set<std::string, std::less<>> shown_;
};

}  // namespace zellive::tool
