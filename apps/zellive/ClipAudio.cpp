#include "apps/zellive/ClipAudio.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <cstdlib>

namespace zellive::tool {
namespace {

/// Time stamps of a file are rounded; only what is further off than this is a gap or an overlap. 40 ms.
constexpr std::int64_t tolerance = sampleRate / 25;

}  // namespace

std::unique_ptr<ClipAudio> ClipAudio::open(ClipDemuxer& demuxer, std::string& error) {
  std::unique_ptr<ClipAudio> audio(new ClipAudio(demuxer));
  audio->decoder_ = openDecoder(*demuxer.stream(ClipDemuxer::Track::Audio), error);
  audio->frame_.reset(av_frame_alloc());
  if (!audio->decoder_ || !audio->frame_) {
    error = "cannot decode the sound: " + error;
    return nullptr;
  }
  return audio;
}

void ClipAudio::read(std::span<std::int16_t> samples) {
  std::size_t done = 0;
  while (done < samples.size()) {
    if (blockUsed_ == block_.size() && !decodeNext()) {
      break;
    }
    // Sound that lies before the position comes too late: cut it.
    const std::int64_t start = blockStart_ + static_cast<std::int64_t>(blockUsed_);
    if (start < position_) {
      blockUsed_ += std::min(block_.size() - blockUsed_, static_cast<std::size_t>(position_ - start));
      continue;
    }
    const std::size_t room = samples.size() - done;
    std::size_t count = 0;
    if (start > position_) {
      count = std::min(room, static_cast<std::size_t>(start - position_));
      std::fill_n(samples.begin() + static_cast<std::ptrdiff_t>(done), count, std::int16_t{0});
    } else {
      count = std::min(room, block_.size() - blockUsed_);
      std::copy_n(block_.begin() + static_cast<std::ptrdiff_t>(blockUsed_), count,
                  samples.begin() + static_cast<std::ptrdiff_t>(done));
      blockUsed_ += count;
    }
    done += count;
    position_ += static_cast<std::int64_t>(count);
  }
  std::fill(samples.begin() + static_cast<std::ptrdiff_t>(done), samples.end(), std::int16_t{0});
  position_ += static_cast<std::int64_t>(samples.size() - done);
}

/// Puts the next sound into block_. False when there is none, at present or any more.
bool ClipAudio::decodeNext() {
  block_.clear();
  blockUsed_ = 0;
  while (block_.empty() && !ended_) {
    const int result = avcodec_receive_frame(decoder_.get(), frame_.get());
    if (result >= 0) {
      resample(frame_.get());
      continue;
    }
    if (result == AVERROR_EOF) {
      avcodec_flush_buffers(decoder_.get());
      ended_ = lastPass_;
      newPass_ = true;
      resample(nullptr);
      continue;
    }
    auto item = demuxer_.next(ClipDemuxer::Track::Audio);
    if (item.kind == ClipDemuxer::Item::Kind::Starved) {
      return false;
    }
    if (item.kind == ClipDemuxer::Item::Kind::Packet) {
      origin_ = item.origin;
    }
    lastPass_ = item.kind == ClipDemuxer::Item::Kind::End;
    // A damaged packet costs its sound; no packet makes the decoder give up what it holds back.
    (void)avcodec_send_packet(decoder_.get(), item.packet.get());
  }
  return !block_.empty();
}

bool ClipAudio::setUpResampler() {
  if (resampler_ && frame_->format == format_ && frame_->sample_rate == rate_ &&
      av_channel_layout_compare(&frame_->ch_layout, &layout_) == 0) {
    return true;
  }
  AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
  SwrContext* context = nullptr;
  (void)swr_alloc_set_opts2(&context, &mono, AV_SAMPLE_FMT_S16, static_cast<int>(sampleRate), &frame_->ch_layout,
                            static_cast<AVSampleFormat>(frame_->format), frame_->sample_rate, 0, nullptr);
  resampler_.reset(context);
  if (!resampler_ || swr_init(resampler_.get()) < 0 || av_channel_layout_copy(&layout_, &frame_->ch_layout) < 0) {
    resampler_.reset();
    return false;
  }
  format_ = frame_->format;
  rate_ = frame_->sample_rate;
  return true;
}

/// Makes block_ of a frame, or of what the resampler still holds when the pass has ended (null).
void ClipAudio::resample(const AVFrame* frame) {
  if (frame != nullptr && (frame->nb_samples <= 0 || frame->sample_rate <= 0 || !setUpResampler())) {
    return;
  }
  if (!resampler_) {
    return;
  }
  if (frame != nullptr) {
    place(*frame);
  }
  blockStart_ = nextStart_;
  const int room = swr_get_out_samples(resampler_.get(), frame == nullptr ? 0 : frame->nb_samples);
  block_.resize(static_cast<std::size_t>(std::max(room, 0)));
  auto* output = reinterpret_cast<std::uint8_t*>(block_.data());
  const int made = swr_convert(resampler_.get(), &output, room,
                               frame == nullptr ? nullptr : const_cast<const std::uint8_t**>(frame->extended_data),
                               frame == nullptr ? 0 : frame->nb_samples);
  block_.resize(static_cast<std::size_t>(std::max(made, 0)));
  nextStart_ += static_cast<std::int64_t>(block_.size());
  if (frame == nullptr) {
    resampler_.reset();
  }
}

/// Where the sound that the resampler delivers next belongs.
void ClipAudio::place(const AVFrame& frame) {
  if (frame.best_effort_timestamp == AV_NOPTS_VALUE) {
    if (newPass_) {
      nextStart_ = std::max(nextStart_, samplesUntil(origin_));
    }
    newPass_ = false;
    return;
  }
  const MediaTime time = origin_ + demuxer_.inPass(ClipDemuxer::Track::Audio, frame.best_effort_timestamp);
  const std::int64_t start = samplesUntil(time) - swr_get_delay(resampler_.get(), sampleRate);
  if (newPass_ || std::abs(start - nextStart_) > tolerance) {
    nextStart_ = start;
  }
  newPass_ = false;
}

}  // namespace zellive::tool
