#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "apps/zellive/MediaSource.h"

namespace zellive::tool {

/// Where a feed's media goes: a session, in the form that the feed needs.
class MediaSink {
 public:
  virtual ~MediaSink() = default;
  virtual void pushAudio(std::span<const std::uint8_t> pcm) = 0;
  virtual void pushVideo(std::shared_ptr<PixelBuffer> picture) = 0;
};

/// Deals a source out in the order in which a session wants it: sound in small blocks, and each picture once the sound
/// has reached the point at which a viewer is to see it.
///
/// The session stamps pictures with its sound clock, and a sound is heard `soundDelay` later than the clock stood when
/// it was pushed. Pushing a picture exactly that much later than its own time puts both together, and gives pictures
/// evenly spaced stamps.
class MediaFeed {
 public:
  /// Samples between the beginning of a sound and the stamp that it is heard at: the encoder stamps a block of 1024
  /// samples with its end.
  static constexpr std::int64_t soundDelay = 1024;

  MediaFeed(MediaSource& source, MediaSink& sink, std::uint64_t framesPerSecond);

  /// The sound clock at the end of the next step: what is pushed by then must have happened by then.
  [[nodiscard]] MediaTime next() const;
  /// Sound pushed so far.
  [[nodiscard]] MediaTime position() const { return timeOfSamples(position_); }
  /// Pushes the next block of sound and the picture that is due with it. False when the media has ended.
  bool step();
  /// Pushes a block of silence: what follows the media pushes its last frames out of the queues.
  void stepSilence();
  /// Pictures due so far.
  [[nodiscard]] std::int64_t pictures() const { return pictures_; }
  /// Pictures left out because the encoder was too far behind.
  [[nodiscard]] std::int64_t skipped() const { return skipped_; }

 private:
  [[nodiscard]] std::int64_t pictureSample() const;
  [[nodiscard]] std::int64_t blockEnd() const;
  void pushPicture(std::shared_ptr<PixelBuffer> picture);

  MediaSource& source_;
  MediaSink& sink_;
  const std::int64_t framesPerSecond_;
  /// A sixth of a second: less than the session waits before it drops pictures itself, so that they are counted here.
  const std::size_t waitingLimit_;
  std::int64_t position_ = 0;
  std::int64_t pictures_ = 0;
  std::int64_t skipped_ = 0;
  std::vector<std::int16_t> block_;
  std::vector<std::weak_ptr<PixelBuffer>> waiting_;
};

}  // namespace zellive::tool
