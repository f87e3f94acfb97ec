#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "apps/zellive/ClipDemuxer.h"

namespace zellive::tool {

/// The sound track of a file as one unbroken run of 48 kHz mono samples: gaps are silent, overlaps are cut.
class ClipAudio {
 public:
  /// Null with `error` set when the sound cannot be decoded.
  [[nodiscard]] static std::unique_ptr<ClipAudio> open(ClipDemuxer& demuxer, std::string& error);

  /// Fills all of `samples`; silence where the file has none.
  void read(std::span<std::int16_t> samples);

 private:
  explicit ClipAudio(ClipDemuxer& demuxer) : demuxer_(demuxer) {}
  [[nodiscard]] bool decodeNext();
  [[nodiscard]] bool setUpResampler();
  void resample(const AVFrame* frame);
  void place(const AVFrame& frame);

  ClipDemuxer& demuxer_;
  DecoderPtr decoder_;
  ResamplerPtr resampler_;
  FramePtr frame_;
  AVChannelLayout layout_{};
  int format_ = -1;
  int rate_ = 0;

  std::vector<std::int16_t> block_;  ///< What the last frame became.
  std::size_t blockUsed_ = 0;
  std::int64_t blockStart_ = 0;  ///< Position of block_'s first sample in the whole run.
  std::int64_t nextStart_ = 0;   ///< Where the following block lies if the file says nothing else.
  std::int64_t position_ = 0;    ///< Samples read so far.
  MediaTime origin_{};
  bool newPass_ = true;
  bool lastPass_ = false;
  bool ended_ = false;
};

}  // namespace zellive::tool
