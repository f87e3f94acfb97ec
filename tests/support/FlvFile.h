#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace zellive::test {

/// One tag of a recording (Adobe's FLV specification 10.1, E.4).
struct FlvTag {
  enum Type : std::uint8_t { Audio = 8, Video = 9, Script = 18 };
  std::uint8_t type = 0;
  std::uint32_t timestamp = 0;  ///< Milliseconds, 32 bits.
  std::vector<std::uint8_t> body;

  /// A picture's NAL units, or an access unit: not a sequence header.
  [[nodiscard]] bool isMedia() const;
  [[nodiscard]] bool isKeyFrame() const;
  /// Of the first NAL unit of a picture tag; -1 when there is none.
  [[nodiscard]] int nalType() const;
};

using FlvValue = std::variant<double, bool, std::string>;

/// A recording, read without any library so that it is judged by what stands in the file. Throws std::runtime_error
/// when the file breaks the format anywhere.
class FlvFile {
 public:
  explicit FlvFile(const std::string& path);

  [[nodiscard]] const std::vector<FlvTag>& tags() const { return tags_; }
  [[nodiscard]] std::vector<FlvTag> mediaTags(FlvTag::Type type) const;
  /// The properties of onMetaData, in their order.
  [[nodiscard]] const std::vector<std::pair<std::string, FlvValue>>& metadata() const { return metadata_; }

 private:
  std::vector<FlvTag> tags_;
  std::vector<std::pair<std::string, FlvValue>> metadata_;
};

}  // namespace zellive::test
