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
const Bytes kAud{0x09, 0xF0};
const Bytes kSps{0x67, 0x64, 0, 0x1F, 0xAC};
const Bytes kPps{0x68, 0xEE, 0x3C};
const Bytes kSei{0x06, 0x05, 0x01, 0xAA, 0x80};
const Bytes kFiller{0x0C, 0xFF, 0xFF, 0x80};
const Bytes kIdr{0x65, 0x88, 1, 0, 2, 0, 0, 3, 1, 0x9B};
const Bytes kSlice{0x41, 0x9A, 0x11, 0x80};

std::vector<Bytes> unitsOf(const Bytes& stream, NalFraming framing) {
  std::vector<NalUnit> units;
  findNalUnits(stream, framing, units);
  std::vector<Bytes> found;
  for (const NalUnit& unit : units) {
    EXPECT_LE(unit.offset + unit.length, stream.size());
    found.push_back(bytesOf(Data::copyOf(std::span(stream).subspan(unit.offset, unit.length))));
  }
  return found;
}

/// Packs the slices of an Annex B stream in both ways: the copy, and whether there was room for it in place.
std::pair<Bytes, bool> packed(const Bytes& stream) {
  std::vector<NalUnit> units;
  findNalUnits(stream, AnnexB, units);
  Bytes copied(packedSliceLength(units));
  packSlices(stream, units, copied.data());
  Bytes scratch = stream;
  const auto inPlace = packSlicesInPlace(scratch, units);
  EXPECT_EQ(inPlace ? Bytes(inPlace->begin(), inPlace->end()) : scratch, inPlace ? copied : stream);
  return {copied, inPlace.has_value()};
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

TEST(NalUnits, SlicesOfAnyStreamArePackedInPlaceWhereThereIsRoom) {
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    Bytes stream;
    Bytes slices;
    std::vector<Bytes> units;
    bool fits = true;
    std::ptrdiff_t room = 0;  // Behind the slices that are packed so far; the first stays where it is.
    for (auto count = random() % 6; count > 0; --count) {
      const Bytes& code = random() % 2 == 0 ? kCode3 : kCode4;
      units.push_back(std::array{kAud, kFiller, kIdr, kSlice}[random() % 4]);
      stream = concat({stream, code, units.back()});
      room += std::ssize(code);
      if ((units.back()[0] & 0x1F) <= 5) {
        fits = fits && room >= 4;
        room = slices.empty() ? 0 : room - 4;
        slices = concat({slices, withLength(units.back())});
      } else {
        room += std::ssize(units.back());
      }
    }
    ASSERT_EQ(unitsOf(stream, AnnexB), units);
    ASSERT_EQ(packed(stream), std::pair(slices, fits && !slices.empty())) << testing::PrintToString(stream);
    // The same with noise over it must stay in bounds.
    std::ranges::for_each(stream, [&](auto& byte) { byte = random() % 4 == 0 ? random() % 3 : byte; });
    (void)packed(stream);
    (void)unitsOf(stream, Lengths);
  }
}

ffmpeg::PacketPtr packetOf(const Bytes& stream) {
  ffmpeg::PacketPtr packet(av_packet_alloc());
  EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(stream.size())), 0);
  std::ranges::copy(stream, packet->data);
  return packet;
}

TEST(SampleAssembler, KeepsSlicesAndParameterSetsOfAnAnnexBStream) {
  SampleAssembler assembler(AnnexB);
  const auto key =
      packetOf(concat({kCode4, kAud, kCode4, kSps, kCode4, kPps, kCode3, kSei, kCode3, kIdr, kCode3, kFiller}));
  const auto* memory = key->data;
  const VideoSample first = assembler.assemble(*key, false);
  EXPECT_TRUE(first.sync);
  EXPECT_EQ(bytesOf(first.data), withLength(kIdr));
  EXPECT_EQ(bytesOf(first.sps), kSps);
  EXPECT_EQ(bytesOf(first.pps), kPps);
  EXPECT_TRUE(first.data.bytes() >= memory && first.data.bytes() < memory + 60) << "the payload was copied";

  const VideoSample second = assembler.assemble(*packetOf(concat({kCode3, kSlice})), true);
  EXPECT_FALSE(second.sync);
  EXPECT_EQ(bytesOf(second.data), withLength(kSlice));
  EXPECT_EQ(second.sps.bytes(), first.sps.bytes()) << "an unchanged parameter set is shared";
  EXPECT_FALSE(assembler.assemble(*packetOf(concat({kCode4, kFiller})), true).data);
}

}  // namespace
}  // namespace zellive
