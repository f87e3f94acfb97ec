#pragma once

#include <memory>
#include <string>

#include "apps/zellive/ClipAudio.h"
#include "apps/zellive/ClipDemuxer.h"
#include "apps/zellive/ClipVideo.h"
#include "apps/zellive/MediaSource.h"

namespace zellive::tool {

/// A media file, once or over and over. A file without sound is silent.
class ClipSource : public MediaSource {
 public:
  /// Null with `error` set when the file cannot be published.
  [[nodiscard]] static std::unique_ptr<ClipSource> open(const std::string& path, bool loop, std::string& error);

  [[nodiscard]] PictureSize pictureSize() const override { return video_->pictureSize(); }
  [[nodiscard]] double frameRate() const override { return video_->frameRate(); }
  void readAudio(std::span<std::int16_t> samples) override;
  [[nodiscard]] std::shared_ptr<PixelBuffer> pictureAt(MediaTime time) override;
  [[nodiscard]] std::string failure() const override;

 private:
  ClipSource() = default;

  std::unique_ptr<ClipDemuxer> demuxer_;
  std::unique_ptr<ClipVideo> video_;
  std::unique_ptr<ClipAudio> audio_;
};

}  // namespace zellive::tool
