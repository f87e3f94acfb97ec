#include <nlohmann/json.hpp>
#include <utility>

#include "zellive/platform/KeyedArchive.h"
#include "zellive/platform/Log.h"

namespace zellive {
namespace {

// JSON holds text, our strings any bytes: each byte is written as the character U+0000…U+00FF of the same number.
std::string textFromBytes(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      text.push_back(c);
    } else {
      text.push_back(static_cast<char>(0xC0 | byte >> 6));
      text.push_back(static_cast<char>(0x80 | (byte & 0x3F)));
    }
  }
  return text;
}

/// `text` is valid UTF-8. Nothing when it holds a character beyond U+00FF.
std::optional<std::string> bytesFromText(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
      bytes.push_back(text[i]);
    } else if (lead <= 0xC3 && i + 1 < text.size()) {
      bytes.push_back(static_cast<char>(lead << 6 | (static_cast<unsigned char>(text[++i]) & 0x3F)));
    } else {
      return std::nullopt;
    }
  }
  return bytes;
}

class JsonArchiver : public KeyedArchiver {
 public:
  void encodeUnsigned(std::string_view key, std::uint64_t value) override { put(key, value); }
  void encodeSigned(std::string_view key, std::int64_t value) override { put(key, value); }
  void encodeBool(std::string_view key, bool value) override { put(key, value); }
  void encodeSize(std::string_view key, Size value) override {
    put(key, Json::object({{"width", value.width}, {"height", value.height}}));
  }
  void encodeString(std::string_view key, std::string_view bytes) override { put(key, textFromBytes(bytes)); }
  [[nodiscard]] std::string finish() override { return root_.dump(-1, ' ', false, Json::error_handler_t::replace); }

 private:
  using Json = nlohmann::ordered_json;
  void put(std::string_view key, Json value) { root_[std::string(key)] = std::move(value); }

  Json root_ = Json::object();
};

class JsonUnarchiver : public KeyedUnarchiver {
 public:
  explicit JsonUnarchiver(nlohmann::json root) : root_(std::move(root)) {}

  [[nodiscard]] std::optional<std::uint64_t> decodeUnsigned(std::string_view key) const override {
    const auto& value = at(key);
    if (const auto* number = value.get_ptr<const nlohmann::json::number_unsigned_t*>()) {
      return *number;
    }
    return std::nullopt;
  }

  [[nodiscard]] std::optional<std::int64_t> decodeSigned(std::string_view key) const override {
    const auto& value = at(key);
    if (const auto* large = value.get_ptr<const nlohmann::json::number_unsigned_t*>()) {
      return std::in_range<std::int64_t>(*large) ? std::optional(static_cast<std::int64_t>(*large)) : std::nullopt;
    }
    if (const auto* number = value.get_ptr<const nlohmann::json::number_integer_t*>()) {
      return *number;
    }
    return std::nullopt;
  }

  [[nodiscard]] std::optional<bool> decodeBool(std::string_view key) const override {
    const auto& value = at(key);
    if (const auto* boolean = value.get_ptr<const nlohmann::json::boolean_t*>()) {
      return *boolean;
    }
    return std::nullopt;
  }

  [[nodiscard]] std::optional<Size> decodeSize(std::string_view key) const override {
    const auto& value = at(key);
    const auto& width = member(value, "width");
    const auto& height = member(value, "height");
    if (!width.is_number() || !height.is_number()) {
      return std::nullopt;
    }
    return Size{width.get<double>(), height.get<double>()};
  }

  [[nodiscard]] std::optional<std::string> decodeString(std::string_view key) const override {
    const auto& value = at(key);
    if (const auto* text = value.get_ptr<const nlohmann::json::string_t*>()) {
      return bytesFromText(*text);
    }
    return std::nullopt;
  }

 private:
  static const nlohmann::json& member(const nlohmann::json& object, std::string_view key) {
    static const nlohmann::json absent;
    if (!object.is_object()) {
      return absent;
    }
    const auto found = object.find(key);
    return found == object.end() ? absent : *found;
  }
  [[nodiscard]] const nlohmann::json& at(std::string_view key) const { return member(root_, key); }

  nlohmann::json root_;
};

}  // namespace

std::unique_ptr<KeyedArchiver> makeKeyedArchiver() { return std::make_unique<JsonArchiver>(); }

std::unique_ptr<KeyedUnarchiver> makeKeyedUnarchiver(std::string_view archive) {
  auto root = nlohmann::json::parse(archive, nullptr, false);
  if (!root.is_object()) {
    ZEL_LOG_ERROR("Live: archive of %zu bytes is not a JSON object", archive.size());
    return nullptr;
  }
  return std::make_unique<JsonUnarchiver>(std::move(root));
}

}  // namespace zellive
