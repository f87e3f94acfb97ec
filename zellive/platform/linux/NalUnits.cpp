#include "zellive/platform/linux/NalUnits.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace zellive {
namespace {

constexpr std::size_t kLengthSize = 4;

std::size_t readLength(const std::uint8_t* bytes) {
  return std::size_t{bytes[0]} << 24 | std::size_t{bytes[1]} << 16 | std::size_t{bytes[2]} << 8 | bytes[3];
}

void writeLength(std::uint8_t* bytes, std::size_t length) {
  bytes[0] = static_cast<std::uint8_t>(length >> 24);
  bytes[1] = static_cast<std::uint8_t>(length >> 16);
  bytes[2] = static_cast<std::uint8_t>(length >> 8);
  bytes[3] = static_cast<std::uint8_t>(length);
}

void addUnit(std::span<const std::uint8_t> stream, std::size_t offset, std::size_t length,
             std::vector<NalUnit>& units) {
  if (length > 0) {
    units.push_back({offset, length, static_cast<std::uint8_t>(stream[offset] & 0x1F)});
  }
}

void findByLengths(std::span<const std::uint8_t> stream, std::vector<NalUnit>& units) {
  std::size_t offset = 0;
  while (stream.size() - offset >= kLengthSize) {
    const std::size_t length = readLength(stream.data() + offset);
    offset += kLengthSize;
    if (length > stream.size() - offset) {
      return;
    }
    addUnit(stream, offset, length, units);
    offset += length;
  }
}

/// Offset of the next 00 00 01 at or after `from`, or the stream's size.
std::size_t nextStartCode(std::span<const std::uint8_t> stream, std::size_t from) {
  for (std::size_t at = from; at + 3 <= stream.size();) {
    // Slices hold few bytes of 0 or 1, so the search for the closing 1 skips most of them.
    const auto* one = static_cast<const std::uint8_t*>(std::memchr(stream.data() + at + 2, 1, stream.size() - at - 2));
    if (one == nullptr) {
      break;
    }
    const auto end = static_cast<std::size_t>(one - stream.data());
    if (stream[end - 1] == 0 && stream[end - 2] == 0) {
      return end - 2;
    }
    at = end - 1;
  }
  return stream.size();
}

void findByStartCodes(std::span<const std::uint8_t> stream, std::vector<NalUnit>& units) {
  std::size_t code = nextStartCode(stream, 0);
  while (code < stream.size()) {
    const std::size_t begin = code + 3;
    code = nextStartCode(stream, begin);
    std::size_t end = code;
    // A NAL unit never ends in 0; zeros here belong to the next start code or to padding.
    while (end > begin && stream[end - 1] == 0) {
      --end;
    }
    addUnit(stream, begin, end - begin, units);
  }
}

/// ISO/IEC 14496-10, 7.3.2.3.1: header, payload type, payload size, UUID, text, stop bit. No emulation prevention is
/// needed: no two zeros follow each other.
constexpr std::size_t kUuidSize = 16;
constexpr std::array<std::uint8_t, kUuidSize> kMakerUuid{0x9e, 0x1f, 0x4c, 0x07, 0x5b, 0x6d, 0x4a, 0x2e,
                                                         0xb3, 0x58, 0xd1, 0x7a, 0x62, 0x0c, 0xe8, 0x95};
constexpr std::array<char, 7> kMakerText{'Z', 'e', 'l', 'L', 'i', 'v', 'e'};
constexpr std::size_t kMakerPayload = kMakerUuid.size() + kMakerText.size();
constexpr std::size_t kMakerUnit = 1 + 2 + kMakerPayload + 1;

constexpr std::array<std::uint8_t, kLengthSize + kMakerUnit> buildMakerSei() {
  std::array<std::uint8_t, kLengthSize + kMakerUnit> unit{};
  unit[3] = static_cast<std::uint8_t>(kMakerUnit);
  unit[4] = nalType::Sei;
  unit[5] = 5;  // user_data_unregistered
  unit[6] = static_cast<std::uint8_t>(kMakerPayload);
  std::copy(kMakerUuid.begin(), kMakerUuid.end(), unit.begin() + 7);
  std::copy(kMakerText.begin(), kMakerText.end(), unit.begin() + 7 + kUuidSize);
  unit.back() = 0x80;
  return unit;
}
constexpr auto kMakerSei = buildMakerSei();

}  // namespace

void findNalUnits(std::span<const std::uint8_t> stream, NalFraming framing, std::vector<NalUnit>& units) {
  units.clear();
  if (framing == NalFraming::Lengths) {
    findByLengths(stream, units);
  } else {
    findByStartCodes(stream, units);
  }
}

std::size_t packedSliceLength(const std::vector<NalUnit>& units) {
  std::size_t total = 0;
  for (const NalUnit& unit : units) {
    total += unit.isSlice() ? kLengthSize + unit.length : 0;
  }
  return total;
}

std::optional<std::span<std::uint8_t>> packSlicesInPlace(std::span<std::uint8_t> stream,
                                                         const std::vector<NalUnit>& units) {
  // The first slice stays where it is and the others move up to it, so that usually nothing moves at all.
  std::optional<std::size_t> begin;
  std::size_t end = 0;
  for (const NalUnit& unit : units) {
    if (!unit.isSlice()) {
      continue;
    }
    if (unit.offset < end + kLengthSize) {
      return std::nullopt;
    }
    if (!begin) {
      begin = unit.offset - kLengthSize;
      end = *begin;
    }
    end += kLengthSize + unit.length;
  }
  if (!begin) {
    return std::nullopt;
  }
  std::uint8_t* target = stream.data() + *begin;
  for (const NalUnit& unit : units) {
    if (unit.isSlice()) {
      std::memmove(target + kLengthSize, stream.data() + unit.offset, unit.length);
      writeLength(target, unit.length);
      target += kLengthSize + unit.length;
    }
  }
  return stream.subspan(*begin, end - *begin);
}

void packSlices(std::span<const std::uint8_t> stream, const std::vector<NalUnit>& units, std::uint8_t* target) {
  for (const NalUnit& unit : units) {
    if (unit.isSlice()) {
      writeLength(target, unit.length);
      std::memcpy(target + kLengthSize, stream.data() + unit.offset, unit.length);
      target += kLengthSize + unit.length;
    }
  }
}

std::span<const std::uint8_t> makerSei() { return kMakerSei; }

}  // namespace zellive
