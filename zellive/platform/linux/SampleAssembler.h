#pragma once

#include <span>
#include <vector>

#include "zellive/platform/VideoCompressionSession.h"
#include "zellive/platform/linux/FfmpegSupport.h"
#include "zellive/platform/linux/NalUnits.h"

namespace zellive {

/// Turns an encoder's packets into samples: slices only, led by lengths, with the parameter sets beside them.
class SampleAssembler {
 public:
  explicit SampleAssembler(NalFraming framing) : framing_(framing) {}

  /// Reads the parameter sets that the encoder tells when it is opened; either framing.
  void readExtradata(std::span<const std::uint8_t> extradata);
  /// Takes the packet's memory into the sample where it can. `leadingSei` puts makerSei() ahead of an IDR picture.
  [[nodiscard]] VideoSample assemble(AVPacket& packet, bool leadingSei);

 private:
  void keepParameterSets(std::span<const std::uint8_t> stream);
  [[nodiscard]] Data copySlices(std::span<const std::uint8_t> stream, bool leadingSei) const;

  NalFraming framing_;
  std::vector<NalUnit> units_;
  Data sps_;
  Data pps_;
};

}  // namespace zellive
