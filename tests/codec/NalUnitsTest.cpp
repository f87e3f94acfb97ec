#include "zellive/platform/linux/NalUnits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "zellive/platform/linux/SampleAssembler.h"

namespace zellive {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

Bytes withLength(const Bytes& unit) {
  const auto length = static_cast<std::uint32_t>(unit.size());
  Bytes all{static_cast<std::uint8_t>(length >> 24), static_cast<std::uint8_t>(length >> 16),
            static_cast<std::uint8_t>(length >> 8), static_cast<std::uint8_t>(length)};
  all.insert(all.end(), unit.begin(), unit.end());
  return all;
}

const Bytes kCode3{0, 0, 1};
const Bytes kCode4{0, 0, 0, 1};
const Bytes kAud{0x09, 0xF0};
const Bytes kSps{0x67, 0x64, 0, 0x1F, 0xAC};
const Bytes kPps{0x68, 0xEE, 0x3C};
const Bytes kSei{0x06, 0x05, 0x01, 0xAA, 0x80};
const Bytes kFiller{0x0C, 0xFF, 0xFF, 0x80};
const Bytes kIdr{0x65, 0x88, 1, 0, 2, 0, 0, 3, 1, 0x9B};
const Bytes kIdr2{0x65, 0x40, 7, 7, 0x80};
const Bytes kSlice{0x41, 0x9A, 0x11, 0x80};

std::vector<Bytes> unitsOf(const Bytes& stream, NalFraming framing) {
  std::vector<NalUnit> units;
  findNalUnits(stream, framing, units);
  std::vector<Bytes> found;
  for (const NalUnit& unit : units) {
    EXPECT_LE(unit.offset + unit.length, stream.size());
    const auto begin = stream.begin() + static_cast<std::ptrdiff_t>(unit.offset);
    found.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(unit.length));
  }
  return found;
}

TEST(NalUnits, AreFoundInBothFramings) {
  const struct {
    std::string name;
    NalFraming framing;
    Bytes stream;
    std::vector<Bytes> expected;
  } cases[] = {
      {"empty", NalFraming::AnnexB, {}, {}},
      {"no start code", NalFraming::AnnexB, {0x65, 1, 2, 0, 1}, {}},
      {"start code alone", NalFraming::AnnexB, kCode4, {}},
      {"both start codes", NalFraming::AnnexB, concat({kCode4, kSps, kCode3, kIdr}), {kSps, kIdr}},
      {"padding zeros",
       NalFraming::AnnexB,
       concat({{0, 0}, kCode4, kIdr, {0, 0, 0}, kCode4, kSlice, {0}}),
       {kIdr, kSlice}},
      {"two codes in a row", NalFraming::AnnexB, concat({kCode3, kCode3, kSlice}), {kSlice}},
      {"lengths", NalFraming::Lengths, concat({withLength(kSei), withLength(kIdr)}), {kSei, kIdr}},
      {"empty unit between", NalFraming::Lengths, concat({withLength({}), withLength(kIdr)}), {kIdr}},
      {"length past the end", NalFraming::Lengths, concat({withLength(kIdr), {0, 0, 0, 9, 1}}), {kIdr}},
      {"largest length", NalFraming::Lengths, {0xFF, 0xFF, 0xFF, 0xFF, 0x65, 1}, {}},
      {"cut length", NalFraming::Lengths, concat({withLength(kIdr), {0, 0}}), {kIdr}},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(unitsOf(test.stream, test.framing), test.expected) << test.name;
  }
}

TEST(NalUnits, PackInPlaceWhereThereIsRoom) {
  const struct {
    std::string name;
    Bytes stream;
    bool fits;
  } cases[] = {
      {"four-byte code", concat({kCode4, kIdr}), true},
      {"three-byte code at the start", concat({kCode3, kIdr}), false},
      {"three-byte code after a dropped unit", concat({kCode4, kAud, kCode3, kIdr}), true},
      {"two slices, four-byte codes", concat({kCode4, kIdr, kCode4, kIdr2}), true},
      {"two slices, three-byte code between", concat({kCode4, kIdr, kCode3, kIdr2}), false},
      {"two slices, filler between", concat({kCode4, kIdr, kCode3, kFiller, kCode3, kIdr2, {0, 0}}), true},
      {"no slice", concat({kCode4, kAud, kCode4, kFiller}), false},
  };
  for (const auto& test : cases) {
    Bytes stream = test.stream;
    std::vector<NalUnit> units;
    findNalUnits(stream, NalFraming::AnnexB, units);
    Bytes expected;
    for (const Bytes& unit : unitsOf(stream, NalFraming::AnnexB)) {
      expected = unit[0] == 0x65 ? concat({expected, withLength(unit)}) : expected;
    }
    ASSERT_EQ(packedSliceLength(units), expected.size()) << test.name;
    Bytes copied(expected.size());
    packSlices(stream, units, copied.data());
    EXPECT_EQ(copied, expected) << test.name;
    const auto packed = packSlicesInPlace(stream, units);
    ASSERT_EQ(packed.has_value(), test.fits) << test.name;
    if (packed) {
      EXPECT_EQ(Bytes(packed->begin(), packed->end()), expected) << test.name;
    } else {
      EXPECT_EQ(stream, test.stream) << test.name;
    }
  }
}

TEST(NalUnits, ArbitraryBytesStayInBounds) {
  std::mt19937 random(7);
  std::vector<NalUnit> units;
  for (int round = 0; round < 4000; ++round) {
    Bytes stream(random() % 40);
    for (auto& byte : stream) {
      byte = static_cast<std::uint8_t>(random() % 4 == 0 ? random() : random() % 3);
    }
    for (const auto framing : {NalFraming::Lengths, NalFraming::AnnexB}) {
      const std::vector<Bytes> before = unitsOf(stream, framing);
      findNalUnits(stream, framing, units);
      Bytes scratch = stream;
      Bytes copied(packedSliceLength(units));
      packSlices(stream, units, copied.data());
      if (const auto packed = packSlicesInPlace(scratch, units)) {
        ASSERT_EQ(Bytes(packed->begin(), packed->end()), copied);
      }
    }
  }
}

ffmpeg::PacketPtr packetOf(const Bytes& stream) {
  ffmpeg::PacketPtr packet(av_packet_alloc());
  EXPECT_EQ(av_new_packet(packet.get(), static_cast<int>(stream.size())), 0);
  std::ranges::copy(stream, packet->data);
  return packet;
}

Bytes bytesOf(const Data& data) { return {data.span().begin(), data.span().end()}; }

TEST(SampleAssembler, KeepsSlicesAndParameterSetsOfAnAnnexBStream) {
  SampleAssembler assembler(NalFraming::AnnexB);
  const auto key =
      packetOf(concat({kCode4, kAud, kCode4, kSps, kCode4, kPps, kCode3, kSei, kCode3, kIdr, kCode3, kFiller}));
  const auto* memory = key->data;
  const VideoSample first = assembler.assemble(*key, false);
  EXPECT_TRUE(first.sync);
  EXPECT_EQ(bytesOf(first.data), withLength(kIdr));
  EXPECT_EQ(bytesOf(first.sps), kSps);
  EXPECT_EQ(bytesOf(first.pps), kPps);
  EXPECT_GE(first.data.bytes(), memory) << "the payload was copied";
  EXPECT_LT(first.data.bytes(), memory + 60) << "the payload was copied";

  const auto next = packetOf(concat({kCode3, kSlice}));
  const VideoSample second = assembler.assemble(*next, true);
  EXPECT_FALSE(second.sync);
  EXPECT_EQ(bytesOf(second.data), withLength(kSlice));
  EXPECT_EQ(second.sps.bytes(), first.sps.bytes()) << "an unchanged parameter set is shared";
}

TEST(SampleAssembler, LeadsAKeyPictureWithASei) {
  SampleAssembler assembler(NalFraming::Lengths);
  assembler.readExtradata(concat({kCode4, kSps, kCode4, kPps}));
  const VideoSample sample = assembler.assemble(*packetOf(concat({withLength(kSei), withLength(kIdr)})), true);
  const auto units = unitsOf(bytesOf(sample.data), NalFraming::Lengths);
  ASSERT_EQ(units.size(), 2U);
  EXPECT_EQ(units[1], kIdr);
  EXPECT_EQ(bytesOf(sample.pps), kPps);
  // Type 6; payload type 5 of as many bytes as follow, less the stop bit's.
  EXPECT_EQ(units[0][0], 0x06);
  EXPECT_EQ(units[0][1], 5);
  EXPECT_EQ(units[0][2], units[0].size() - 4);
  EXPECT_EQ(std::string(units[0].begin() + 19, units[0].end() - 1), "ZelLive");
  EXPECT_EQ(units[0].back(), 0x80);
}

TEST(SampleAssembler, APacketWithoutSlicesHasNoData) {
  SampleAssembler assembler(NalFraming::AnnexB);
  const VideoSample sample = assembler.assemble(*packetOf(concat({kCode4, kFiller})), true);
  EXPECT_FALSE(sample.data);
  EXPECT_FALSE(sample.sync);
}

}  // namespace
}  // namespace zellive
