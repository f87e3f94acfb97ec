#include "tests/support/FlvFile.h"

#include <bit>
#include <fstream>
#include <iterator>
#include <span>
#include <stdexcept>

namespace zellive::test {
namespace {

/// Reads big-endian numbers and refuses to go past the end.
class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  [[nodiscard]] bool empty() const { return bytes_.empty(); }
  std::span<const std::uint8_t> take(std::size_t count) {
    if (count > bytes_.size()) {
      throw std::runtime_error("the file ends in the middle of a tag");
    }
    const auto taken = bytes_.first(count);
    bytes_ = bytes_.subspan(count);
    return taken;
  }
  std::uint64_t number(std::size_t bytes) {
    std::uint64_t value = 0;
    for (const auto byte : take(bytes)) {
      value = value << 8 | byte;
    }
    return value;
  }
  std::string text(std::size_t lengthBytes) {
    const auto characters = take(number(lengthBytes));
    return {characters.begin(), characters.end()};
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

constexpr std::uint64_t amfNumber = 0;
constexpr std::uint64_t amfBoolean = 1;
constexpr std::uint64_t amfString = 2;
constexpr std::uint64_t amfObject = 3;
constexpr std::uint64_t amfEcmaArray = 8;
constexpr std::uint64_t amfObjectEnd = 9;

FlvValue readValue(Reader& reader) {
  switch (const auto marker = reader.number(1)) {
    case amfNumber:
      return std::bit_cast<double>(reader.number(8));
    case amfBoolean:
      return reader.number(1) != 0;
    case amfString:
      return reader.text(2);
    default:
      throw std::runtime_error("a value of type " + std::to_string(marker) + " in the metadata");
  }
}

/// Servers store what they are sent either as it came, "@setDataFrame" included, or without that word.
std::vector<std::pair<std::string, FlvValue>> readMetadata(const std::vector<std::uint8_t>& body) {
  Reader reader(body);
  auto name = readValue(reader);
  if (name == FlvValue("@setDataFrame")) {
    name = readValue(reader);
  }
  std::vector<std::pair<std::string, FlvValue>> properties;
  if (name != FlvValue("onMetaData")) {
    return properties;
  }
  if (const auto marker = reader.number(1); marker == amfEcmaArray) {
    (void)reader.number(4);
  } else if (marker != amfObject) {
    throw std::runtime_error("the metadata are no object");
  }
  for (auto key = reader.text(2); !key.empty(); key = reader.text(2)) {
    properties.emplace_back(std::move(key), readValue(reader));
  }
  if (reader.number(1) != amfObjectEnd) {
    throw std::runtime_error("the metadata are not closed");
  }
  return properties;
}

}  // namespace

bool FlvTag::isMedia() const { return (type == Audio || type == Video) && body.size() > 1 && body[1] == 1; }

bool FlvTag::isKeyFrame() const { return type == Video && !body.empty() && body[0] >> 4 == 1; }

int FlvTag::nalType() const { return type == Video && body.size() > 9 ? body[9] & 0x1F : -1; }

FlvFile::FlvFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
  Reader reader(bytes);
  if (reader.number(3) != 0x464C56) {
    throw std::runtime_error(path + " is no FLV file");
  }
  (void)reader.take(2);
  (void)reader.take(reader.number(4) - 9);
  (void)reader.number(4);
  while (!reader.empty()) {
    FlvTag tag;
    tag.type = static_cast<std::uint8_t>(reader.number(1));
    const auto size = reader.number(3);
    const auto low = reader.number(3);
    tag.timestamp = static_cast<std::uint32_t>(reader.number(1) << 24 | low);
    (void)reader.number(3);
    const auto body = reader.take(size);
    tag.body.assign(body.begin(), body.end());
    if (reader.number(4) != size + 11) {
      throw std::runtime_error("a tag's length differs from the one behind it");
    }
    if (tag.type == FlvTag::Script && metadata_.empty()) {
      metadata_ = readMetadata(tag.body);
    }
    tags_.push_back(std::move(tag));
  }
}

std::vector<FlvTag> FlvFile::mediaTags(FlvTag::Type type) const {
  std::vector<FlvTag> found;
  for (const auto& tag : tags_) {
    if (tag.type == type && tag.isMedia()) {
      found.push_back(tag);
    }
  }
  return found;
}

}  // namespace zellive::test
