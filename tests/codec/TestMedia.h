#pragma once

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <span>
#include <vector>

#include "tests/support/ColourScene.h"
#include "zellive/platform/VideoCompressionSession.h"
#include "zellive/platform/linux/FfmpegSupport.h"

namespace zellive::test {

using Bytes = std::vector<std::uint8_t>;
inline Bytes bytesOf(const Data& data) { return {data.span().begin(), data.span().end()}; }

/// The NAL units of a sample, each of which is led by its length.
inline std::vector<std::span<const std::uint8_t>> nalUnits(std::span<const std::uint8_t> sample) {
  std::vector<std::span<const std::uint8_t>> units;
  while (sample.size() > 4) {
    units.push_back(sample.subspan(4, static_cast<std::size_t>(sample[2] << 8 | sample[3])));
    sample = sample.subspan(4 + units.back().size());
  }
  return units;
}

/// How far a decoded picture is from the colour scene drawn at `width` × `height`: the mean difference of its worst
/// component in steps of 8 bits.
inline double differenceFromScene(const AVFrame& frame, int width, int height) {
  const bool full = frame.color_range == AVCOL_RANGE_JPEG;
  const auto format = full ? PixelFormat::BiPlanarFullRange : PixelFormat::BiPlanarVideoRange;
  const auto matrix = frame.colorspace == AVCOL_SPC_BT709 ? ColorMatrix::BT709 : ColorMatrix::BT601;
  double worst = 0;
  for (const int component : {0, 1, 2}) {
    const int columns = frame.width / (component == 0 ? 1 : 2);
    const int rows = frame.height / (component == 0 ? 1 : 2);
    double sum = 0;
    for (int at = 0; at < columns * rows; ++at) {
      const auto* bytes = frame.data[component] + at / columns * frame.linesize[component];
      sum +=
          std::abs(sceneAt(format, matrix, component, at % columns, at / columns, width, height) - bytes[at % columns]);
    }
    worst = std::max(worst, sum / (columns * rows));
  }
  return worst;
}

/// Picture `index` of a restless scene, costly at any bit rate.
inline std::shared_ptr<PixelBuffer> restlessScene(int width, int height, int index) {
  std::mt19937 random(static_cast<unsigned>(index));
  return draw(PixelFormat::Planar, static_cast<std::size_t>(width), static_cast<std::size_t>(height),
              [&](int component, int column, int row) {
                const int square = ((column + index * 5) / 8 + row / 8) % 5;
                return component == 0 ? 60.0 + square * 30 + static_cast<double>(random() % 40) : 128.0;
              });
}

/// Decodes packet by packet, as a strict viewer would.
class Decoder {
 public:
  Decoder(AVCodecID id, std::span<const std::uint8_t> extradata)
      : context_(avcodec_alloc_context3(avcodec_find_decoder(id))) {
    context_->thread_count = 1;
    context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    context_->err_recognition = AV_EF_EXPLODE;
    context_->extradata = static_cast<std::uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    context_->extradata_size = static_cast<int>(extradata.size());
    std::ranges::copy(extradata, context_->extradata);
    avcodec_open2(context_.get(), nullptr, nullptr);
  }
  /// For the stream that begins with this sample: an AVCDecoderConfigurationRecord (ISO/IEC 14496-15, 5.3.3.1).
  static Decoder h264(const VideoSample& first) {
    Bytes record{1, 100, 0, 40, 0xFF};
    for (const Data& set : {first.sps, first.pps}) {
      const std::uint8_t count = record.size() == 5 ? 0xE1 : 1;
      record.insert(record.end(), {count, 0, static_cast<std::uint8_t>(set.length())});
      record.insert(record.end(), set.span().begin(), set.span().end());
    }
    return {AV_CODEC_ID_H264, record};
  }
  /// What one packet gives at once; null when the decoder gives nothing or complains.
  ffmpeg::FramePtr decode(const Data& bytes) {
    const ffmpeg::PacketPtr packet(av_packet_alloc());
    av_new_packet(packet.get(), static_cast<int>(bytes.length()));
    std::ranges::copy(bytes.span(), packet->data);
    ffmpeg::FramePtr frame(av_frame_alloc());
    const bool decoded = avcodec_send_packet(context_.get(), packet.get()) == 0 &&
                         avcodec_receive_frame(context_.get(), frame.get()) == 0;
    return decoded ? std::move(frame) : nullptr;
  }

 private:
  ffmpeg::CodecContextPtr context_;
};

}  // namespace zellive::test
