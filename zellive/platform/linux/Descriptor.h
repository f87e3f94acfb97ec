#pragma once

#include <unistd.h>

#include <utility>

namespace zellive {

/// Owns a file descriptor; negative: none.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Descriptor taken(std::move(other));
    std::swap(value_, taken.value_);
    return *this;
  }
  ~Descriptor() {
    if (value_ >= 0) {
      ::close(value_);
    }
  }

  [[nodiscard]] int get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ >= 0; }

 private:
  int value_ = -1;
};

}  // namespace zellive
