#include "apps/zellive/ClipDemuxer.h"

#include <algorithm>

namespace zellive::tool {
namespace {

constexpr AVRational nanosecond{1, 1'000'000'000};
/// A greater jump is one of the clock, not a pause in the media.
constexpr MediaTime clockJump = std::chrono::seconds(10);

std::size_t indexOf(ClipDemuxer::Track track) { return static_cast<std::size_t>(track); }

}  // namespace

std::unique_ptr<ClipDemuxer> ClipDemuxer::open(const std::string& path, bool loop, std::string& error, Use use) {
  AVFormatContext* context = nullptr;
  if (const int result = avformat_open_input(&context, path.c_str(), nullptr, nullptr); result < 0) {
    error = "cannot open " + path + ": " + avErrorText(result);
    return nullptr;
  }
  std::unique_ptr<ClipDemuxer> demuxer(new ClipDemuxer);
  demuxer->format_.reset(context);
  demuxer->loop_ = loop;
  if (const int result = avformat_find_stream_info(context, nullptr); result < 0) {
    error = "cannot read " + path + ": " + avErrorText(result);
    return nullptr;
  }
  const auto find = [&](AVMediaType type, Use without) {
    return use == without ? -1 : av_find_best_stream(context, type, -1, -1, nullptr, 0);
  };
  demuxer->index_ = {find(AVMEDIA_TYPE_VIDEO, Use::AudioOnly), find(AVMEDIA_TYPE_AUDIO, Use::VideoOnly)};
  const bool wantsPictures = use != Use::AudioOnly;
  if (demuxer->index_[wantsPictures ? 0 : 1] < 0) {
    error = path + " has no " + (wantsPictures ? "pictures" : "sound") + " to publish";
    return nullptr;
  }
  for (unsigned i = 0; i < context->nb_streams; ++i) {
    const auto number = static_cast<int>(i);
    if (number != demuxer->index_[0] && number != demuxer->index_[1]) {
      context->streams[i]->discard = AVDISCARD_ALL;
    }
  }
  return demuxer;
}

AVStream* ClipDemuxer::streamOf(std::size_t track) const {
  return index_[track] < 0 ? nullptr : format_->streams[index_[track]];
}

AVStream* ClipDemuxer::stream(Track track) const { return streamOf(indexOf(track)); }

MediaTime ClipDemuxer::inPass(Track track, std::int64_t time) const {
  const AVStream* stream = streamOf(indexOf(track));
  const std::int64_t start =
      format_->start_time == AV_NOPTS_VALUE ? 0 : av_rescale_q(format_->start_time, AV_TIME_BASE_Q, nanosecond);
  return MediaTime(av_rescale_q(time, stream->time_base, nanosecond) - start);
}

MediaTime ClipDemuxer::duration() const {
  return MediaTime(av_rescale_q(std::max<std::int64_t>(format_->duration, 0), AV_TIME_BASE_Q, nanosecond));
}

ClipDemuxer::Item ClipDemuxer::next(Track track) {
  auto& mine = queue_[indexOf(track)];
  const auto& other = queue_[1 - indexOf(track)];
  while (mine.empty() && !end_ && other.size() < waitLimit) {
    readOne();
  }
  if (mine.empty()) {
    Item item;
    item.kind = end_ ? Item::Kind::End : Item::Kind::Starved;
    return item;
  }
  Item item = std::move(mine.front());
  mine.pop_front();
  return item;
}

void ClipDemuxer::readOne() {
  PacketPtr packet(av_packet_alloc());
  const int result = packet ? av_read_frame(format_.get(), packet.get()) : AVERROR(ENOMEM);
  if (result == AVERROR(EAGAIN)) {
    return;
  }
  if (result < 0) {
    if (result != AVERROR_EOF) {
      failure_ = "reading stopped: " + avErrorText(result);
      end_ = passEnd_;
      return;
    }
    finishPass();
    return;
  }
  for (std::size_t track = 0; track < tracks; ++track) {
    if (packet->stream_index != index_[track]) {
      continue;
    }
    const std::int64_t time = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
    if (time != AV_NOPTS_VALUE) {
      const auto kind = static_cast<Track>(track);
      smoothOut(inPass(kind, time));
      passEnd_ = std::max(passEnd_, origin_ + shift_ + inPass(kind, time + packet->duration));
    }
    passPackets_ += track == (index_[0] < 0 ? 1U : 0U) ? 1 : 0;
    queue_[track].push_back({Item::Kind::Packet, std::move(packet), origin_ + shift_});
    return;
  }
}

/// Broadcast recordings are often several in a row, each with a clock of its own.
void ClipDemuxer::smoothOut(MediaTime time) {
  const auto jump = origin_ + shift_ + time - passEnd_;
  if ((format_->iformat->flags & AVFMT_TS_DISCONT) != 0 && (jump > clockJump || jump < -clockJump)) {
    shift_ -= jump;
  }
}

/// A pass without a single packet would repeat for ever without delivering anything.
void ClipDemuxer::finishPass() {
  if (!loop_ || passPackets_ == 0) {
    end_ = passEnd_;
    return;
  }
  if (!rewind()) {
    failure_ = "the file cannot be wound back, so it cannot be looped";
    end_ = passEnd_;
    return;
  }
  passPackets_ = 0;
  // A file whose packets carry no times has pictures all the same: a pass of it lasts as long as the header says.
  if (passEnd_ <= origin_) {
    passEnd_ = origin_ + std::max(MediaTime(std::chrono::milliseconds(40)), duration());
  }
  origin_ = passEnd_;
  shift_ = {};
  for (std::size_t track = 0; track < tracks; ++track) {
    if (index_[track] >= 0) {  // A queue that nobody reads would grow.
      Item item;
      item.kind = Item::Kind::PassEnd;
      item.origin = origin_;
      queue_[track].push_back(std::move(item));
    }
  }
}

bool ClipDemuxer::rewind() {
  const std::int64_t start = format_->start_time == AV_NOPTS_VALUE ? 0 : format_->start_time;
  return av_seek_frame(format_.get(), -1, start, AVSEEK_FLAG_BACKWARD) >= 0 ||
         av_seek_frame(format_.get(), -1, 0, AVSEEK_FLAG_BYTE) >= 0;
}

}  // namespace zellive::tool
