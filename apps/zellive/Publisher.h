#pragma once

#include <memory>
#include <optional>
#include <string>

#include "apps/zellive/CommandLine.h"
#include "apps/zellive/LibraryLog.h"
#include "apps/zellive/MediaFeed.h"
#include "apps/zellive/Output.h"
#include "apps/zellive/Pacer.h"
#include "apps/zellive/SessionEvents.h"
#include "apps/zellive/StatusMeter.h"
#include "apps/zellive/Troubles.h"
#include "apps/zellive/Waker.h"

namespace zellive::tool {

/// Runs one stream from connection to end, on the thread that calls run().
class Publisher : private MediaSink {
 public:
  Publisher(const PublishOptions& options, MediaSource& source, std::shared_ptr<ZelLiveVideoConfiguration> video,
            std::shared_ptr<Output> output, std::shared_ptr<Waker> waker);
  ~Publisher() override;
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;

  /// Returns the program's exit status.
  [[nodiscard]] int run();

 private:
  void pushAudio(std::span<const std::uint8_t> pcm) override;
  void pushVideo(std::shared_ptr<PixelBuffer> picture) override;

  void start();
  void stop();
  void handleEvents();
  void handle(const SessionEvents::Event& event);
  void handleState(std::uint64_t state);
  void fail(std::uint64_t code, const std::string& reason);
  void feed(Waker::Duration now);
  void endOfMedia();
  void showStatus(Waker::Duration now);
  [[nodiscard]] Waker::Duration wakeTime(Waker::Duration now);
  [[nodiscard]] StreamStatus status(Waker::Duration now) const;
  [[nodiscard]] bool drained(Waker::Duration now) const;

  /// What the media is doing.
  enum class Phase {
    Waiting,    ///< For the first connection.
    Streaming,  ///< The source is pushed as it falls due.
    Tail,       ///< It has ended; silence pushes its last frames out of the queues.
    Draining,   ///< Everything is pushed; the send buffer empties.
    Ended,
  };

  const PublishOptions& options_;
  MediaSource& source_;
  const std::shared_ptr<ZelLiveVideoConfiguration> video_;
  const std::shared_ptr<Output> output_;
  const std::shared_ptr<Waker> waker_;
  const std::shared_ptr<SessionEvents> events_;
  const std::shared_ptr<LibraryLog> log_;
  std::shared_ptr<ZelLiveSession> session_;
  MediaFeed feed_;
  Pacer pacer_;
  StatusMeter meter_;
  Troubles troubles_;

  Phase phase_ = Phase::Waiting;
  Waker::Duration phaseStart_{};
  Waker::Duration startTime_{};
  Waker::Duration nextStatus_{};
  int tailBlocks_ = 0;
  std::uint64_t state_ = 0;
  std::uint64_t bufferCount_ = 0;
  std::uint64_t droppedBySession_ = 0;  ///< Once it has ended.
  int exitStatus_ = 0;
};

}  // namespace zellive::tool
