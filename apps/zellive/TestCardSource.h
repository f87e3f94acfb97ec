#pragma once

#include <memory>

#include "apps/zellive/MediaSource.h"

namespace zellive::tool {

/// Colour bars, a running clock and a moving mark; once a second a white field flashes and a tone sounds, both for
/// flashLength from the second's beginning, so that a viewer can hear and see whether sound and picture agree.
class TestCardSource : public MediaSource {
 public:
  static constexpr MediaTime flashLength = std::chrono::milliseconds(100);

  /// Null when the size is out of range.
  [[nodiscard]] static std::unique_ptr<TestCardSource> create(PictureSize size);

  [[nodiscard]] PictureSize pictureSize() const override { return size_; }
  [[nodiscard]] double frameRate() const override { return 0; }
  void readAudio(std::span<std::int16_t> samples) override;
  [[nodiscard]] std::shared_ptr<PixelBuffer> pictureAt(MediaTime time) override;

 private:
  explicit TestCardSource(PictureSize size) : size_(size) {}
  void drawBackground();

  const PictureSize size_;
  std::int64_t samplesRead_ = 0;
  std::shared_ptr<PixelBuffer> background_;
  std::shared_ptr<PixelBufferPool> pool_;
};

}  // namespace zellive::tool
