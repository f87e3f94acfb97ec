#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/Process.h"

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

/// A recording, read without any library so that it is judged by what stands in the file. Throws std::runtime_error
/// when the file breaks the format anywhere.
class FlvFile {
 public:
  enum class Reading {
    Whole,
    AsFarAsItGoes,  ///< Of a file that is still being written.
  };
  explicit FlvFile(const std::string& path, Reading reading = Reading::Whole) {
    const auto contents = contentsOf(path);
    left_ = {reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size()};
    try {
      read();
    } catch (const std::runtime_error&) {
      if (reading == Reading::Whole) {
        throw;
      }
    }
  }

  [[nodiscard]] const std::vector<FlvTag>& tags() const { return tags_; }
  [[nodiscard]] std::vector<FlvTag> mediaTags(FlvTag::Type type) const {
    auto found = tags_;
    std::erase_if(found, [type](const FlvTag& tag) { return tag.type != type || !tag.isMedia(); });
    return found;
  }

 private:
  void read() {
    require(number(3) == 0x464C56, "this is no FLV file");
    take(2);
    take(number(4) - 9);
    number(4);
    while (!left_.empty()) {
      const auto type = static_cast<std::uint8_t>(number(1));
      const auto size = number(3);
      const auto low = number(3);
      const auto timestamp = number(1) << 24 | low;
      number(3);
      const auto body = take(size);
      tags_.push_back({type, timestamp, {body.begin(), body.end()}});
      require(number(4) == size + 11, "a tag's length differs from the one behind it");
    }
  }
  static void require(bool holds, const char* otherwise) {
    if (!holds) {
      throw std::runtime_error(otherwise);
    }
  }
  std::span<const std::uint8_t> take(std::size_t count) {
    require(count <= left_.size(), "the file ends in the middle of a tag");
    const auto taken = left_.first(count);
    left_ = left_.subspan(count);
    return taken;
  }
  /// Big-endian.
  std::uint32_t number(std::size_t size) {
    std::uint32_t value = 0;
    for (const auto byte : take(size)) {
      value = value << 8 | byte;
    }
    return value;
  }

  std::span<const std::uint8_t> left_;
  std::vector<FlvTag> tags_;
};

}  // namespace zellive::test
