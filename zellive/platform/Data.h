#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>

namespace zellive {

/// Immutable, shared bytes.
///
/// Copying a Data copies a reference, never the bytes. The bytes stay valid and unchanged for as long as any Data
/// refers to them; `owner` may be any object (a vector, an encoder's packet), so that a payload need not be moved into
/// memory of ours first. Thread-safe in the way of `std::shared_ptr`.
class Data {
 public:
  /// No bytes at all; tests false. Distinct from an existing but empty payload.
  Data() = default;

  /// Refers to `bytes`, which `owner` keeps alive. `owner` must not be null.
  Data(std::shared_ptr<const void> owner, std::span<const std::uint8_t> bytes)
      : owner_(std::move(owner)), bytes_(bytes) {}

  Data(const Data&) = default;
  Data& operator=(const Data&) = default;
  /// A moved-from Data refers to nothing.
  Data(Data&& other) noexcept : owner_(std::move(other.owner_)), bytes_(std::exchange(other.bytes_, {})) {}
  Data& operator=(Data&& other) noexcept {
    Data taken(std::move(other));
    owner_.swap(taken.owner_);
    std::swap(bytes_, taken.bytes_);
    return *this;
  }
  ~Data() = default;

  /// Copies `bytes` into memory of its own.
  [[nodiscard]] static Data copyOf(std::span<const std::uint8_t> bytes);

  [[nodiscard]] const std::uint8_t* bytes() const noexcept { return bytes_.data(); }
  /// Length in bytes.
  [[nodiscard]] std::size_t length() const noexcept { return bytes_.size(); }
  [[nodiscard]] std::span<const std::uint8_t> span() const noexcept { return bytes_; }
  /// `length` bytes from `offset` on, of the same owner; they must lie within this payload.
  [[nodiscard]] Data subdata(std::size_t offset, std::size_t length) const {
    return Data(owner_, bytes_.subspan(offset, length));
  }
  /// True when this refers to a payload, even one of length 0.
  explicit operator bool() const noexcept { return owner_ != nullptr; }

 private:
  std::shared_ptr<const void> owner_;
  std::span<const std::uint8_t> bytes_;
};

}  // namespace zellive
