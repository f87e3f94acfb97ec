#include "tests/codec/Decoders.h"

#include <algorithm>
#include <cstring>

#include "zellive/platform/linux/NalUnits.h"

namespace zellive::test {
namespace {

ffmpeg::CodecContextPtr openDecoder(AVCodecID id, std::span<const std::uint8_t> extradata) {
  const AVCodec* codec = avcodec_find_decoder(id);
  ffmpeg::CodecContextPtr context(avcodec_alloc_context3(codec));
  context->thread_count = 1;
  context->flags |= AV_CODEC_FLAG_LOW_DELAY;
  context->err_recognition = AV_EF_EXPLODE;
  if (!extradata.empty()) {
    context->extradata = static_cast<std::uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    context->extradata_size = static_cast<int>(extradata.size());
    std::ranges::copy(extradata, context->extradata);
  }
  return avcodec_open2(context.get(), codec, nullptr) == 0 ? std::move(context) : nullptr;
}

ffmpeg::FramePtr decodeBytes(AVCodecContext& context, std::span<const std::uint8_t> bytes) {
  const ffmpeg::PacketPtr packet(av_packet_alloc());
  if (av_new_packet(packet.get(), static_cast<int>(bytes.size())) != 0) {
    return nullptr;
  }
  std::ranges::copy(bytes, packet->data);
  ffmpeg::FramePtr frame(av_frame_alloc());
  const bool decoded =
      avcodec_send_packet(&context, packet.get()) == 0 && avcodec_receive_frame(&context, frame.get()) == 0;
  return decoded ? std::move(frame) : nullptr;
}

void addUnit(std::vector<std::uint8_t>& stream, std::span<const std::uint8_t> unit) {
  stream.insert(stream.end(), {0, 0, 0, 1});
  stream.insert(stream.end(), unit.begin(), unit.end());
}

}  // namespace

std::vector<int> nalTypes(const VideoSample& sample) {
  std::vector<NalUnit> units;
  findNalUnits(sample.data.span(), NalFraming::Lengths, units);
  std::vector<int> types;
  for (const NalUnit& unit : units) {
    types.push_back(unit.type);
  }
  return types;
}

H264Decoder::H264Decoder() : context_(openDecoder(AV_CODEC_ID_H264, {})) {}

ffmpeg::FramePtr H264Decoder::decode(const VideoSample& sample) {
  std::vector<std::uint8_t> stream;
  if (sample.sync) {
    addUnit(stream, sample.sps.span());
    addUnit(stream, sample.pps.span());
  }
  std::vector<NalUnit> units;
  findNalUnits(sample.data.span(), NalFraming::Lengths, units);
  for (const NalUnit& unit : units) {
    addUnit(stream, sample.data.span().subspan(unit.offset, unit.length));
  }
  return decodeBytes(*context_, stream);
}

AacDecoder::AacDecoder(std::array<std::uint8_t, 2> audioSpecificConfig)
    : context_(openDecoder(AV_CODEC_ID_AAC, audioSpecificConfig)) {}

std::vector<std::vector<float>> AacDecoder::decode(std::span<const std::uint8_t> unit) {
  std::vector<std::vector<float>> channels;
  const ffmpeg::FramePtr frame = decodeBytes(*context_, unit);
  if (!frame || frame->format != AV_SAMPLE_FMT_FLTP) {
    return channels;
  }
  for (int channel = 0; channel < frame->ch_layout.nb_channels; ++channel) {
    const auto* samples = reinterpret_cast<const float*>(frame->data[channel]);
    channels.emplace_back(samples, samples + frame->nb_samples);
  }
  return channels;
}

}  // namespace zellive::test
