#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "apps/zellive/PictureSize.h"
#include "zellive/platform/PixelBuffer.h"

namespace zellive::tool {

/// Position in the media, from 0 at its beginning.
using MediaTime = std::chrono::nanoseconds;

/// Sound is 48 kHz mono everywhere in this program.
inline constexpr std::int64_t sampleRate = 48000;

[[nodiscard]] constexpr MediaTime timeOfSamples(std::int64_t samples) {
  return MediaTime(samples / sampleRate * 1'000'000'000 + samples % sampleRate * 1'000'000'000 / sampleRate);
}
[[nodiscard]] constexpr std::int64_t samplesUntil(MediaTime time) {
  return time.count() / 1'000'000'000 * sampleRate + time.count() % 1'000'000'000 * sampleRate / 1'000'000'000;
}

/// Something to publish. One thread at a time.
class MediaSource {
 public:
  virtual ~MediaSource() = default;

  /// Of every picture.
  [[nodiscard]] virtual PictureSize pictureSize() const = 0;
  /// Pictures per second that the source has by nature; 0 when it draws as many as it is asked for.
  [[nodiscard]] virtual double frameRate() const = 0;

  /// Fills all of `samples` with the sound that follows what was read before; silence where there is none.
  virtual void readAudio(std::span<std::int16_t> samples) = 0;
  /// The picture to be seen at `time`; times never go back. Shared: it is not to be changed. Null when the media, sound
  /// included, has ended at that time, or cannot be read any more.
  [[nodiscard]] virtual std::shared_ptr<PixelBuffer> pictureAt(MediaTime time) = 0;
  /// Why the media ended, when it was not by its own end.
  [[nodiscard]] virtual std::string failure() const { return {}; }
};

}  // namespace zellive::tool
