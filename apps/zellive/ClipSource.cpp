#include "apps/zellive/ClipSource.h"

#include <algorithm>

namespace zellive::tool {

std::unique_ptr<ClipSource> ClipSource::open(const std::string& path, bool loop, std::string& error) {
  // libav's own remarks on a file are of no use to whoever publishes it; what matters comes back as an error.
  av_log_set_level(AV_LOG_FATAL);
  std::unique_ptr<ClipSource> source(new ClipSource);
  source->demuxer_ = ClipDemuxer::open(path, loop, error);
  if (!source->demuxer_) {
    return nullptr;
  }
  source->video_ = ClipVideo::open(*source->demuxer_, error);
  if (source->video_ && source->demuxer_->stream(ClipDemuxer::Track::Audio) != nullptr) {
    source->audio_ = ClipAudio::open(*source->demuxer_, error);
  }
  const bool soundFine = source->audio_ || source->demuxer_->stream(ClipDemuxer::Track::Audio) == nullptr;
  if (!source->video_ || !soundFine) {
    error = path + ": " + error;
    return nullptr;
  }
  return source;
}

void ClipSource::readAudio(std::span<std::int16_t> samples) {
  if (audio_) {
    audio_->read(samples);
  } else {
    std::fill(samples.begin(), samples.end(), std::int16_t{0});
  }
}

std::shared_ptr<PixelBuffer> ClipSource::pictureAt(MediaTime time) {
  auto picture = video_->pictureAt(time);
  const auto end = demuxer_->end();
  return end && time >= *end ? nullptr : picture;
}

std::string ClipSource::failure() const { return video_->failure().empty() ? demuxer_->failure() : video_->failure(); }

}  // namespace zellive::tool
