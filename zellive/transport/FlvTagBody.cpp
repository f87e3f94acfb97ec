#include "zellive/transport/FlvTagBody.h"

#include <algorithm>
#include <array>
#include <initializer_list>

namespace zellive {
namespace {

constexpr std::size_t kVideoHeaderLimit = 1024;
constexpr std::size_t kVideoHeaderOverhead = 16;
constexpr std::uint8_t kAacTag = 0xAF;

/// Writes bytes one after the other into a body.
class Writer {
 public:
  explicit Writer(std::span<std::uint8_t> out) : at_(out.data()) {}

  Writer& put(std::initializer_list<std::uint8_t> bytes) {
    at_ = std::copy(bytes.begin(), bytes.end(), at_);
    return *this;
  }
  Writer& put(const Data& data) {
    at_ = std::copy_n(data.bytes(), data.length(), at_);
    return *this;
  }
  /// Big-endian.
  Writer& putNumber(std::size_t value, unsigned bytes) {
    while (bytes-- > 0) {
      *at_++ = static_cast<std::uint8_t>(value >> (8 * bytes));
    }
    return *this;
  }

 private:
  std::uint8_t* at_;
};

}  // namespace

std::span<std::uint8_t> RtmpBody::resize(std::size_t size) {
  if (block_.size() < kRtmpHeaderRoom + size) {
    block_.resize(kRtmpHeaderRoom + size);
  }
  size_ = size;
  return bytes();
}

std::span<std::uint8_t> RtmpBody::bytes() noexcept {
  return block_.empty() ? std::span<std::uint8_t>() : std::span(block_).subspan(kRtmpHeaderRoom, size_);
}

bool canPackVideoHeader(const ZelLiveVideoFrame& frame) {
  return frame.sps.length() >= 4 && frame.pps.length() > 0 &&
         kVideoHeaderOverhead + frame.sps.length() + frame.pps.length() <= kVideoHeaderLimit;
}

void packVideoHeader(const ZelLiveVideoFrame& frame, RtmpBody& body) {
  const auto sps = frame.sps.span();
  Writer(body.resize(kVideoHeaderOverhead + frame.sps.length() + frame.pps.length()))
      .put({0x17, 0x00, 0x00, 0x00, 0x00})              // Key frame, AVC; sequence header; composition time.
      .put({0x01, sps[1], sps[2], sps[3], 0xFF, 0xE1})  // Version, profile and level, 4-byte lengths, one SPS.
      .putNumber(frame.sps.length(), 2)
      .put(frame.sps)
      .put({0x01})  // One PPS.
      .putNumber(frame.pps.length(), 2)
      .put(frame.pps);
}

void packVideo(const ZelLiveVideoFrame& frame, RtmpBody& body) {
  const std::uint8_t kind = frame.isKeyFrame ? 0x17 : 0x27;
  Writer(body.resize(9 + frame.data.length()))
      .put({kind, 0x01, 0x00, 0x00, 0x00})
      .putNumber(frame.data.length(), 4)
      .put(frame.data);
}

void packAudioHeader(const ZelLiveAudioFrame& frame, RtmpBody& body) {
  Writer(body.resize(2 + frame.audioInfo.length())).put({kAacTag, 0x00}).put(frame.audioInfo);
}

void packAudio(const ZelFrame& frame, RtmpBody& body) {
  Writer(body.resize(2 + frame.data.length())).put({kAacTag, 0x01}).put(frame.data);
}

}  // namespace zellive
