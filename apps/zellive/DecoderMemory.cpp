#include "apps/zellive/DecoderMemory.h"

#include <algorithm>
#include <utility>

namespace zellive::tool {
namespace {

/// Decoders read a little beyond what they were promised.
constexpr int spareRows = 4;

struct Holder {
  std::shared_ptr<PixelBuffer> picture;
};

void dropHolder(void* opaque, std::uint8_t*) { delete static_cast<Holder*>(opaque); }

/// Makes `plane` of `picture` the frame's own.
bool lend(AVFrame& frame, int plane, const std::shared_ptr<PixelBuffer>& picture) {
  const auto& memory = picture->plane(static_cast<std::size_t>(plane));
  auto holder = std::make_unique<Holder>(Holder{picture});
  frame.buf[plane] = av_buffer_create(memory.base, memory.bytesPerRow * memory.height, dropHolder, holder.get(), 0);
  if (frame.buf[plane] == nullptr) {
    return false;
  }
  (void)holder.release();
  frame.data[plane] = memory.base;
  frame.linesize[plane] = static_cast<int>(memory.bytesPerRow);
  return true;
}

bool isPlanar(int format) { return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P; }

}  // namespace

void DecoderMemory::serve(AVCodecContext& decoder) {
  if ((decoder.codec->capabilities & AV_CODEC_CAP_DR1) != 0) {
    decoder.opaque = this;
    decoder.get_buffer2 = &DecoderMemory::getBuffer;
  }
}

int DecoderMemory::getBuffer(AVCodecContext* decoder, AVFrame* frame, int flags) {
  auto* self = static_cast<DecoderMemory*>(decoder->opaque);
  if (isPlanar(frame->format) && self->provide(*decoder, *frame)) {
    return 0;
  }
  return avcodec_default_get_buffer2(decoder, frame, flags);
}

bool DecoderMemory::provide(AVCodecContext& decoder, AVFrame& frame) {
  int width = frame.width;
  int height = frame.height;
  int alignment[AV_NUM_DATA_POINTERS] = {};
  avcodec_align_dimensions2(&decoder, &width, &height, alignment);
  const auto columns = static_cast<std::size_t>(width);
  const auto rows = static_cast<std::size_t>(height + spareRows);
  if (!pool_ || pool_->width() != columns || pool_->height() != rows) {
    pool_ = PixelBufferPool::create(PixelFormat::Planar, columns, rows);
  }
  const auto picture = pool_ ? pool_->acquire() : nullptr;
  if (!picture) {
    return false;
  }
  for (int plane = 0; plane < 3; ++plane) {
    const auto row = static_cast<int>(picture->plane(static_cast<std::size_t>(plane)).bytesPerRow);
    if (row % std::max(alignment[plane], 1) != 0 || !lend(frame, plane, picture)) {
      for (auto*& buffer : frame.buf) {
        av_buffer_unref(&buffer);
      }
      return false;
    }
  }
  // Decoders pass this on with the frame; it tells our memory from theirs.
  frame.opaque = picture.get();
  frame.extended_data = frame.data;
  return true;
}

std::shared_ptr<PixelBuffer> DecoderMemory::pictureOf(const AVFrame& frame) {
  if (frame.opaque == nullptr || frame.buf[0] == nullptr || !isPlanar(frame.format)) {
    return nullptr;
  }
  const auto whole = static_cast<Holder*>(av_buffer_get_opaque(frame.buf[0]))->picture;
  for (std::size_t plane = 0; plane < 3; ++plane) {
    if (frame.data[plane] != whole->plane(plane).base ||
        frame.linesize[plane] != static_cast<int>(whole->plane(plane).bytesPerRow)) {
      return nullptr;
    }
  }
  std::shared_ptr<AVFrame> held(av_frame_clone(&frame), [](AVFrame* clone) { av_frame_free(&clone); });
  if (!held) {
    return nullptr;
  }
  return PixelBuffer::crop(whole, static_cast<std::size_t>(frame.width), static_cast<std::size_t>(frame.height),
                           [held]() mutable { held.reset(); });
}

}  // namespace zellive::tool
