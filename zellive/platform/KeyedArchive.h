#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zellive/platform/Geometry.h"

namespace zellive {

/// Takes named values apart for storage. Each encode call adds one key; a key given twice keeps the later value.
class KeyedArchiver {
 public:
  virtual ~KeyedArchiver() = default;
  virtual void encodeUnsigned(std::string_view key, std::uint64_t value) = 0;
  virtual void encodeSigned(std::string_view key, std::int64_t value) = 0;
  virtual void encodeBool(std::string_view key, bool value) = 0;
  virtual void encodeSize(std::string_view key, Size value) = 0;
  /// Any bytes; they need not be text in any encoding.
  virtual void encodeString(std::string_view key, std::string_view bytes) = 0;
  /// The archive so far: a JSON object with the keys as given.
  [[nodiscard]] virtual std::string finish() = 0;
};

/// Gives named values back. A key that is absent, of another type or out of range gives no value.
class KeyedUnarchiver {
 public:
  virtual ~KeyedUnarchiver() = default;
  [[nodiscard]] virtual std::optional<std::uint64_t> decodeUnsigned(std::string_view key) const = 0;
  [[nodiscard]] virtual std::optional<std::int64_t> decodeSigned(std::string_view key) const = 0;
  [[nodiscard]] virtual std::optional<bool> decodeBool(std::string_view key) const = 0;
  [[nodiscard]] virtual std::optional<Size> decodeSize(std::string_view key) const = 0;
  [[nodiscard]] virtual std::optional<std::string> decodeString(std::string_view key) const = 0;
};

/// An empty archiver. Never null.
[[nodiscard]] std::unique_ptr<KeyedArchiver> makeKeyedArchiver();
/// Reads an archive; null (and one level-0 log line) when the text is not a JSON object.
[[nodiscard]] std::unique_ptr<KeyedUnarchiver> makeKeyedUnarchiver(std::string_view archive);

}  // namespace zellive
