#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace zellive {

/// Thrown where a named precondition of a call does not hold, and nowhere else: run-time failures are logged and
/// reported as a state or a code. `what()` is "name: reason".
class ZelException : public std::runtime_error {
 public:
  ZelException(std::string name, std::string reason)
      : std::runtime_error(name + ": " + reason), name_(std::move(name)), reason_(std::move(reason)) {}

  [[nodiscard]] const std::string& name() const noexcept { return name_; }
  [[nodiscard]] const std::string& reason() const noexcept { return reason_; }

 private:
  std::string name_;
  std::string reason_;
};

}  // namespace zellive
