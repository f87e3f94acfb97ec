#include "tests/codec/TestMedia.h"

#include <algorithm>
#include <cmath>
#include <random>

#include "zellive/platform/linux/NalUnits.h"

namespace zellive::test {
namespace {

/// Y, Cb or Cr of the scene at a sample of a plane, or B, G, R or A.
double sceneAt(PixelFormat format, int component, int column, int row, int width, int height) {
  const double step = component == 0 || format == PixelFormat::BGRA ? 1 : 2;
  const double x = (column + 0.5) * step / width;
  const double y = (row + 0.5) * step / height;
  const double colours[] = {0.95 - 0.8 * x * y, 0.05 + 0.9 * y, 0.05 + 0.9 * x, 1};
  if (format == PixelFormat::BGRA) {
    return 255 * colours[component];
  }
  const auto& [blue, green, red, alpha] = colours;
  const bool full = format == PixelFormat::BiPlanarFullRange;
  const double luma = 0.299 * red + 0.587 * green + 0.114 * blue;
  const double chroma = component == 1 ? (blue - luma) / 1.772 : (red - luma) / 1.402;
  return component == 0 ? (full ? 255 * luma : 16 + 219 * luma) : 128 + (full ? 255 : 224) * chroma;
}

std::shared_ptr<PixelBuffer> draw(PixelFormat format, int width, int height, const auto& valueAt) {
  auto picture = PixelBuffer::create(format, static_cast<std::size_t>(width), static_cast<std::size_t>(height));
  for (std::size_t index = 0; index < picture->planeCount(); ++index) {
    const auto& plane = picture->plane(index);
    const int samples = format == PixelFormat::BGRA ? 4 : format != PixelFormat::Planar && index == 1 ? 2 : 1;
    for (int row = 0; row < static_cast<int>(plane.height); ++row) {
      auto* bytes = plane.base + static_cast<std::size_t>(row) * plane.bytesPerRow;
      for (int at = 0; at < static_cast<int>(plane.width) * samples; ++at) {
        const double value = valueAt(static_cast<int>(index) + at % samples, at / samples, row);
        bytes[at] = static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0, 255.0)));
      }
    }
  }
  return picture;
}

}  // namespace

std::shared_ptr<PixelBuffer> colourScene(PixelFormat format, int width, int height) {
  return draw(format, width, height, [&](int component, int column, int row) {
    return sceneAt(format, component, column, row, width, height);
  });
}

double differenceFromScene(const AVFrame& frame, int width, int height) {
  const auto format =
      frame.color_range == AVCOL_RANGE_JPEG ? PixelFormat::BiPlanarFullRange : PixelFormat::BiPlanarVideoRange;
  double worst = 0;
  for (const int component : {0, 1, 2}) {
    const int columns = frame.width / (component == 0 ? 1 : 2);
    const int rows = frame.height / (component == 0 ? 1 : 2);
    double sum = 0;
    for (int at = 0; at < columns * rows; ++at) {
      const auto* bytes = frame.data[component] + at / columns * frame.linesize[component];
      sum += std::abs(sceneAt(format, component, at % columns, at / columns, width, height) - bytes[at % columns]);
    }
    worst = std::max(worst, sum / (columns * rows));
  }
  return worst;
}

std::shared_ptr<PixelBuffer> restlessScene(int width, int height, int index) {
  std::mt19937 random(static_cast<unsigned>(index));
  return draw(PixelFormat::Planar, width, height, [&](int component, int column, int row) {
    const int square = ((column + index * 5) / 8 + row / 8) % 5;
    return component == 0 ? 60.0 + square * 30 + static_cast<double>(random() % 40) : 128.0;
  });
}

std::vector<int> nalTypes(const VideoSample& sample) {
  std::vector<NalUnit> units;
  findNalUnits(sample.data.span(), NalFraming::Lengths, units);
  std::vector<int> types;
  std::ranges::transform(units, std::back_inserter(types), &NalUnit::type);
  return types;
}

Decoder::Decoder(AVCodecID id, std::span<const std::uint8_t> extradata)
    : context_(avcodec_alloc_context3(avcodec_find_decoder(id))) {
  context_->thread_count = 1;
  context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
  context_->err_recognition = AV_EF_EXPLODE;
  context_->extradata = static_cast<std::uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  context_->extradata_size = static_cast<int>(extradata.size());
  std::ranges::copy(extradata, context_->extradata);
  avcodec_open2(context_.get(), nullptr, nullptr);
}

ffmpeg::FramePtr Decoder::decode(std::span<const std::uint8_t> bytes) {
  const ffmpeg::PacketPtr packet(av_packet_alloc());
  av_new_packet(packet.get(), static_cast<int>(bytes.size()));
  std::ranges::copy(bytes, packet->data);
  ffmpeg::FramePtr frame(av_frame_alloc());
  const bool decoded =
      avcodec_send_packet(context_.get(), packet.get()) == 0 && avcodec_receive_frame(context_.get(), frame.get()) == 0;
  return decoded ? std::move(frame) : nullptr;
}

ffmpeg::FramePtr Decoder::decode(const VideoSample& sample) {
  Bytes stream;
  const auto add = [&stream](std::span<const std::uint8_t> unit) {
    stream.insert(stream.end(), {0, 0, 0, 1});
    stream.insert(stream.end(), unit.begin(), unit.end());
  };
  if (sample.sync) {
    add(sample.sps.span());
    add(sample.pps.span());
  }
  std::vector<NalUnit> units;
  findNalUnits(sample.data.span(), NalFraming::Lengths, units);
  for (const NalUnit& unit : units) {
    add(sample.data.span().subspan(unit.offset, unit.length));
  }
  return decode(stream);
}

}  // namespace zellive::test
