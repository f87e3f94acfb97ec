#pragma once

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "zellive/platform/VideoCompressionSession.h"
#include "zellive/platform/linux/FfmpegSupport.h"
#include "zellive/platform/linux/FfmpegVideoEncoders.h"
#include "zellive/platform/linux/PictureConversion.h"
#include "zellive/platform/linux/SampleAssembler.h"

namespace zellive {

/// A compression session over one of libavcodec's encoders. The output handler runs within encodeFrame, completeFrames
/// and setBitRate's effect on the next picture, on the caller's thread.
class FfmpegVideoSession final : public VideoCompressionSession {
 public:
  FfmpegVideoSession(const VideoEncoderKind& kind, const VideoCompressionSettings& settings, bool quiet,
                     OutputHandler output);

  /// Opens the encoder: 0, or its error.
  [[nodiscard]] int open();

  [[nodiscard]] int encodeFrame(const std::shared_ptr<PixelBuffer>& picture, std::int64_t presentationTime,
                                VideoFrameProperties properties, std::uint64_t reference) override;
  void completeFrames() override;
  void setBitRate(std::int64_t averageBitRate, double dataRateLimitBytes, std::int64_t dataRateLimitSeconds) override;
  [[nodiscard]] std::string encoderName() const override { return kind_.name; }

  /// Whether a session can have this size at all.
  [[nodiscard]] static bool acceptsSize(std::int32_t width, std::int32_t height);
  /// For people: name, size, rate and threads.
  [[nodiscard]] std::string describe() const;

 private:
  struct Pending {
    std::int64_t presentationTime;
    std::uint64_t reference;
    bool leadingSei;
  };

  [[nodiscard]] int prepareFor(const PixelBuffer& picture);
  [[nodiscard]] int followRate();
  [[nodiscard]] int submit(AVFrame& frame, bool forceKeyFrame);
  [[nodiscard]] int upload(const AVFrame& frame);
  [[nodiscard]] int receive();
  void deliver(AVPacket& packet);
  int fail(int status);

  const VideoEncoderKind& kind_;
  EncoderSetup setup_;
  std::int32_t statedWidth_;
  std::int32_t statedHeight_;
  OutputHandler output_;

  ffmpeg::CodecContextPtr context_;
  ffmpeg::PacketPtr packet_;
  ffmpeg::FramePtr surface_;
  std::optional<PictureConverter> converter_;
  std::optional<SampleAssembler> assembler_;
  bool knowsPictures_ = false;
  std::int64_t lastTime_ = -1;
  std::deque<Pending> pending_;

  std::mutex mutex_;
  std::optional<EncoderRate> nextRate_;  // guarded by mutex_
};

}  // namespace zellive
