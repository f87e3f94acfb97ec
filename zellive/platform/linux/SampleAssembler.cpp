#include "zellive/platform/linux/SampleAssembler.h"

#include <algorithm>
#include <memory>
#include <utility>

namespace zellive {
namespace {

void keep(Data& set, std::span<const std::uint8_t> bytes) {
  if (!set || !std::ranges::equal(set.span(), bytes)) {
    set = Data::copyOf(bytes);
  }
}

}  // namespace

void SampleAssembler::readExtradata(std::span<const std::uint8_t> extradata) {
  const bool startCode = extradata.size() >= 4 && extradata[0] == 0 && extradata[1] == 0 &&
                         (extradata[2] == 1 || (extradata[2] == 0 && extradata[3] == 1));
  findNalUnits(extradata, startCode ? NalFraming::AnnexB : NalFraming::Lengths, units_);
  keepParameterSets(extradata);
}

VideoSample SampleAssembler::assemble(AVPacket& packet, bool leadingSei) {
  const std::span<std::uint8_t> stream(packet.data, static_cast<std::size_t>(packet.size));
  findNalUnits(stream, framing_, units_);
  keepParameterSets(stream);

  VideoSample sample;
  sample.sync = std::ranges::any_of(units_, [](const NalUnit& unit) { return unit.type == nalType::IdrSlice; });
  sample.sps = sps_;
  sample.pps = pps_;
  const bool withSei = leadingSei && sample.sync;
  if (packedSliceLength(units_) == 0) {
    return sample;
  }
  if (!withSei && packet.buf != nullptr && av_buffer_is_writable(packet.buf) == 1) {
    if (const auto packed = packSlicesInPlace(stream, units_)) {
      sample.data = Data(ffmpeg::takeMemory(packet), *packed);
      return sample;
    }
  }
  sample.data = copySlices(stream, withSei);
  return sample;
}

void SampleAssembler::keepParameterSets(std::span<const std::uint8_t> stream) {
  for (const NalUnit& unit : units_) {
    if (unit.type == nalType::Sps) {
      keep(sps_, stream.subspan(unit.offset, unit.length));
    } else if (unit.type == nalType::Pps) {
      keep(pps_, stream.subspan(unit.offset, unit.length));
    }
  }
}

Data SampleAssembler::copySlices(std::span<const std::uint8_t> stream, bool leadingSei) const {
  const std::span<const std::uint8_t> sei = leadingSei ? makerSei() : std::span<const std::uint8_t>{};
  const std::size_t length = sei.size() + packedSliceLength(units_);
  const std::shared_ptr<std::uint8_t[]> bytes(new std::uint8_t[length]);
  std::ranges::copy(sei, bytes.get());
  packSlices(stream, units_, bytes.get() + sei.size());
  return Data(bytes, {bytes.get(), length});
}

}  // namespace zellive
