#pragma once

#include <bit>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace zellive::test {

/// One tag of a recording (Adobe FLV 10.1, E.4).
struct FlvTag {
  enum Type : std::uint8_t { Audio = 8, Video = 9, Script = 18 };
  std::uint8_t type = 0;
  std::uint32_t timestamp = 0;  ///< Milliseconds, 32 bits.
  std::vector<std::uint8_t> body;

  /// A picture's NAL units, or an access unit: not a sequence header.
  [[nodiscard]] bool isMedia() const { return (type == Audio || type == Video) && body.size() > 1 && body[1] == 1; }
  /// Of the first NAL unit of a picture tag; -1 when there is none.
  [[nodiscard]] int nalType() const { return type == Video && body.size() > 9 ? body[9] & 0x1F : -1; }
};

using FlvValue = std::variant<double, bool, std::string>;

/// A recording, read without any library so that it is judged by what stands in the file. Throws std::runtime_error
/// when the file breaks the format anywhere.
class FlvFile {
 public:
  explicit FlvFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    Reader reader{bytes};
    require(reader.number(3) == 0x464C56, "this is no FLV file");
    reader.take(2);
    reader.take(reader.number(4) - 9);
    reader.number(4);
    while (!reader.bytes.empty()) {
      FlvTag tag;
      tag.type = static_cast<std::uint8_t>(reader.number(1));
      const auto size = reader.number(3);
      const auto low = reader.number(3);
      tag.timestamp = static_cast<std::uint32_t>(reader.number(1) << 24 | low);
      reader.number(3);
      const auto body = reader.take(size);
      tag.body.assign(body.begin(), body.end());
      require(reader.number(4) == size + 11, "a tag's length differs from the one behind it");
      if (tag.type == FlvTag::Script && metadata_.empty()) {
        readMetadata(Reader{tag.body});
      }
      tags_.push_back(std::move(tag));
    }
  }

  [[nodiscard]] const std::vector<FlvTag>& tags() const { return tags_; }
  [[nodiscard]] std::vector<FlvTag> mediaTags(FlvTag::Type type) const {
    auto found = tags_;
    std::erase_if(found, [type](const FlvTag& tag) { return tag.type != type || !tag.isMedia(); });
    return found;
  }
  /// The properties of onMetaData, in their order.
  [[nodiscard]] const std::vector<std::pair<std::string, FlvValue>>& metadata() const { return metadata_; }

 private:
  static void require(bool holds, const char* otherwise) {
    if (!holds) {
      throw std::runtime_error(otherwise);
    }
  }

  /// Reads big-endian numbers and refuses to go past the end.
  struct Reader {
    std::span<const std::uint8_t> take(std::size_t count) {
      require(count <= bytes.size(), "the file ends in the middle of a tag");
      const auto taken = bytes.first(count);
      bytes = bytes.subspan(count);
      return taken;
    }
    std::uint64_t number(std::size_t size) {
      std::uint64_t value = 0;
      for (const auto byte : take(size)) {
        value = value << 8 | byte;
      }
      return value;
    }
    std::string text() {
      const auto characters = take(number(2));
      return {characters.begin(), characters.end()};
    }
    FlvValue value() {
      switch (number(1)) {
        case 0:
          return std::bit_cast<double>(number(8));
        case 1:
          return number(1) != 0;
        case 2:
          return text();
        default:
          throw std::runtime_error("a value of an unexpected type in the metadata");
      }
    }
    std::span<const std::uint8_t> bytes;
  };

  /// Servers store what they are sent either as it came, "@setDataFrame" included, or without that word; as an object
  /// (3) or an array with a count (8).
  void readMetadata(Reader reader) {
    auto name = reader.value();
    if (name == FlvValue("@setDataFrame")) {
      name = reader.value();
    }
    if (name != FlvValue("onMetaData")) {
      return;
    }
    const auto marker = reader.number(1);
    require(marker == 3 || marker == 8, "the metadata are no object");
    reader.take(marker == 8 ? 4 : 0);
    for (auto key = reader.text(); !key.empty(); key = reader.text()) {
      metadata_.emplace_back(std::move(key), reader.value());
    }
    require(reader.number(1) == 9, "the metadata are not closed");
  }

  std::vector<FlvTag> tags_;
  std::vector<std::pair<std::string, FlvValue>> metadata_;
};

}  // namespace zellive::test
