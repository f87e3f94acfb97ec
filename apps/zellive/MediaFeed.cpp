#include "apps/zellive/MediaFeed.h"

#include <algorithm>

namespace zellive::tool {
namespace {

constexpr std::int64_t blockSamples = 1024;

std::span<const std::uint8_t> bytesOf(std::span<const std::int16_t> samples) {
  return {reinterpret_cast<const std::uint8_t*>(samples.data()), samples.size_bytes()};
}

}  // namespace

MediaFeed::MediaFeed(MediaSource& source, MediaSink& sink, std::uint64_t framesPerSecond)
    : source_(source),
      sink_(sink),
      framesPerSecond_(static_cast<std::int64_t>(framesPerSecond)),
      waitingLimit_(std::max<std::size_t>(3, framesPerSecond / 6)) {
  block_.reserve(blockSamples);
  waiting_.reserve(waitingLimit_);
}

std::int64_t MediaFeed::pictureSample() const { return pictures_ * sampleRate / framesPerSecond_ + soundDelay; }

std::int64_t MediaFeed::blockEnd() const { return std::min(position_ + blockSamples, pictureSample()); }

MediaTime MediaFeed::next() const { return timeOfSamples(blockEnd()); }

bool MediaFeed::step() {
  const std::int64_t end = blockEnd();
  block_.resize(static_cast<std::size_t>(end - position_));
  source_.readAudio(block_);
  sink_.pushAudio(bytesOf(block_));
  position_ = end;
  if (position_ < pictureSample()) {
    return true;
  }
  auto picture = source_.pictureAt(timeOfSamples(pictureSample() - soundDelay));
  if (!picture) {
    return false;
  }
  pushPicture(std::move(picture));
  ++pictures_;
  return true;
}

/// A picture that somebody still holds waits for the encoder. Leaving one out when several wait keeps memory bounded
/// and the stream live.
void MediaFeed::pushPicture(std::shared_ptr<PixelBuffer> picture) {
  // An expired reference would keep its picture from being recycled.
  std::erase_if(waiting_, [&](const auto& held) { return held.expired() || held.lock() == picture; });
  if (waiting_.size() >= waitingLimit_) {
    ++skipped_;
    return;
  }
  waiting_.push_back(picture);
  sink_.pushVideo(std::move(picture));
}

void MediaFeed::stepSilence() {
  block_.assign(static_cast<std::size_t>(blockSamples), 0);
  sink_.pushAudio(bytesOf(block_));
  position_ += blockSamples;
}

}  // namespace zellive::tool
