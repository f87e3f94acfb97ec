#pragma once

#include <memory>
#include <string>

#include "apps/zellive/CommandLine.h"
#include "apps/zellive/MediaFeed.h"
#include "apps/zellive/Pacer.h"
#include "apps/zellive/Programme.h"

namespace zellive::tool {

/// A source's media, pushed in real time.
class PushedProgramme : public Programme, private MediaSink {
 public:
  PushedProgramme(const PublishOptions& options, std::unique_ptr<MediaSource> source);

  [[nodiscard]] std::string name() const override;
  [[nodiscard]] std::int64_t captureType() const override { return ZelLiveInputAudio | ZelLiveInputVideo; }
  [[nodiscard]] const std::shared_ptr<ZelLiveVideoConfiguration>& video() const override { return video_; }
  void attach(const std::shared_ptr<ZelLiveSession>& session) override;
  void begin(Duration now) override;
  [[nodiscard]] Duration nextStep(Duration now) const override;
  [[nodiscard]] bool step(Duration now) override;
  [[nodiscard]] std::string failure() const override;
  [[nodiscard]] std::int64_t skipped() const override { return feed_.skipped(); }

 private:
  void pushAudio(std::span<const std::uint8_t> pcm) override { session_->pushAudio(pcm); }
  void pushVideo(std::shared_ptr<PixelBuffer> picture) override { session_->pushVideo(std::move(picture)); }
  [[nodiscard]] bool isOver() const { return options_.duration && feed_.position() >= *options_.duration; }

  const PublishOptions& options_;
  const std::unique_ptr<MediaSource> source_;
  const std::shared_ptr<ZelLiveVideoConfiguration> video_;
  std::shared_ptr<ZelLiveSession> session_;
  MediaFeed feed_;
  mutable Pacer pacer_;
  bool mediaEnded_ = false;  ///< Silence follows, which pushes its last frames out of the queues.
  int tailBlocks_ = 0;
};

}  // namespace zellive::tool
