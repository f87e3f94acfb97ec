#include "zellive/platform/linux/NalUnits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>

#include "tests/codec/TestMedia.h"
#include "zellive/platform/linux/SampleAssembler.h"

namespace zellive {
namespace {

using test::Bytes;
using test::bytesOf;
using enum NalFraming;

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}
Bytes withLength(const Bytes& unit) { return concat({{0, 0, 0, static_cast<std::uint8_t>(unit.size())}, unit}); }

const Bytes kCode3{0, 0, 1};
const Bytes kCode4{0, 0, 0, 1};
const Bytes kSps{0x67, 0x64, 0, 0x1F, 0xAC};
const Bytes kSei{0x06, 0x05, 0x01, 0xAA, 0x80};
const Bytes kFiller{0x0C, 0xFF, 0xFF, 0x80};
const Bytes kIdr{0x65, 0x88, 1, 0, 2, 0, 0, 3, 1, 0x9B};
const Bytes kSlice{0x41, 0x9A, 0x11, 0x80};

std::vector<Bytes> unitsOf(const Bytes& stream, NalFraming framing) {
  std::vector<NalUnit> units;
  findNalUnits(stream, framing, units);
  std::vector<Bytes> found;
  for (const auto& [offset, length, type] : units) {
    EXPECT_LE(offset + length, stream.size());
    found.push_back(bytesOf(Data::copyOf(std::span(stream).subspan(offset, length))));
  }
  return found;
}

TEST(NalUnits, AreFoundInFaultyStreams) {
  const std::tuple<NalFraming, Bytes, std::vector<Bytes>> cases[] = {
      {AnnexB, {0x65, 1, 2, 0, 1}, {}},
      {AnnexB, kCode4, {}},
      {AnnexB, concat({{0}, kCode4, kSps, {0, 0, 0}, kCode3, kCode3, kIdr, {0}}), {kSps, kIdr}},
      {Lengths, concat({withLength({}), withLength(kSei), withLength(kIdr), {0, 0}}), {kSei, kIdr}},
      {Lengths, concat({withLength(kIdr), {0, 0, 0, 9, 1}}), {kIdr}},
      {Lengths, {0xFF, 0xFF, 0xFF, 0xFF, 0x65, 1}, {}},
  };
  for (const auto& [framing, stream, expected] : cases) {
    EXPECT_EQ(unitsOf(stream, framing), expected) << testing::PrintToString(stream);
  }
}

ffmpeg::PacketPtr packetOf(const Bytes& stream) {
  ffmpeg::PacketPtr packet(av_packet_alloc());
  EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(stream.size())), 0);
  std::ranges::copy(stream, packet->data);
  return packet;
}

TEST(SampleAssembler, PacksTheSlicesOfAnyStreamAndOneAloneInPlace) {
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    Bytes stream;
    Bytes slices;
    std::vector<Bytes> units;
    for (auto count = random() % 6; count > 0; --count) {
      units.push_back(std::array{kSei, kFiller, kIdr, kSlice}[random() % 4]);
      stream = concat({stream, random() % 2 == 0 ? kCode3 : kCode4, units.back()});
      slices = (units.back()[0] & 0x1F) <= 5 ? concat({slices, withLength(units.back())}) : slices;
    }
    ASSERT_EQ(unitsOf(stream, AnnexB), units);
    auto packet = packetOf(stream);
    const auto* memory = packet->data;
    const Data packed = SampleAssembler(AnnexB).assemble(*packet, false).data;
    ASSERT_EQ(bytesOf(packed), slices) << testing::PrintToString(stream);
    if (units.size() == 1 && packed && stream[2] == 0) {
      ASSERT_EQ(packed.bytes(), memory) << "copied, although there was room for the length";
    }
    // The same with noise over it must stay in bounds.
    std::ranges::for_each(stream, [&](auto& byte) { byte = random() % 4 == 0 ? random() % 3 : byte; });
    (void)SampleAssembler(AnnexB).assemble(*packetOf(stream), true);
    (void)unitsOf(stream, Lengths);
  }
}

}  // namespace
}  // namespace zellive
