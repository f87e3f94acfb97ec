#include "zellive/platform/linux/FfmpegVideoSession.h"

#include <algorithm>
#include <utility>

extern "C" {
#include <libavutil/hwcontext.h>
}

namespace zellive {
namespace {

constexpr std::int32_t kLargestSide = 16384;
constexpr int kUnknownFrameRate = 30;
constexpr std::uint64_t kHighestFrameRate = 1000;
/// The number of frames that libx264 takes as "never"; far beyond any stream for the others.
constexpr int kNoKeyFrames = 1 << 30;
constexpr std::int64_t kLowestBitRate = 16'000;
constexpr std::int64_t kHighestBitRate = 1'000'000'000;
/// What the middle one of the usual qualities spends.
constexpr double kBitsPerPixel = 0.07;

int frameRateOf(const VideoCompressionSettings& settings) {
  const std::uint64_t rate = settings.expectedFrameRate;
  return rate == 0 || rate > kHighestFrameRate ? kUnknownFrameRate : static_cast<int>(rate);
}

int keyFrameIntervalOf(const VideoCompressionSettings& settings) {
  std::uint64_t frames = settings.maxKeyFrameInterval;
  if (frames == 0) {
    const auto rate = static_cast<std::uint64_t>(frameRateOf(settings));
    frames = std::min<std::uint64_t>(settings.maxKeyFrameIntervalDuration, kNoKeyFrames) * rate;
  }
  return frames == 0 ? kNoKeyFrames : static_cast<int>(std::min<std::uint64_t>(frames, kNoKeyFrames));
}

EncoderRate rateOf(const VideoCompressionSettings& settings) {
  const double suited = kBitsPerPixel * settings.width * settings.height * frameRateOf(settings);
  const std::int64_t average =
      settings.averageBitRate > 0 ? settings.averageBitRate : static_cast<std::int64_t>(suited);
  return encoderRate(std::clamp(average, kLowestBitRate, kHighestBitRate), settings.dataRateLimitBytes,
                     settings.dataRateLimitSeconds);
}

EncoderSetup setupOf(const VideoEncoderKind& kind, const VideoCompressionSettings& settings, bool quiet) {
  EncoderSetup setup;
  setup.width = settings.width & ~1;
  setup.height = settings.height & ~1;
  setup.frameRate = frameRateOf(settings);
  setup.keyFrameInterval = keyFrameIntervalOf(settings);
  setup.rate = rateOf(settings);
  setup.preset = settings.options.preset;
  setup.layout = kind.usesVaapi ? AV_PIX_FMT_NV12 : AV_PIX_FMT_YUV420P;
  setup.quiet = quiet;
  return setup;
}

}  // namespace

FfmpegVideoSession::FfmpegVideoSession(const VideoEncoderKind& kind, const VideoCompressionSettings& settings,
                                       bool quiet, OutputHandler output)
    : kind_(kind),
      setup_(setupOf(kind, settings, quiet)),
      statedWidth_(settings.width),
      statedHeight_(settings.height),
      output_(std::move(output)) {}

bool FfmpegVideoSession::acceptsSize(std::int32_t width, std::int32_t height) {
  return width >= 2 && height >= 2 && width <= kLargestSide && height <= kLargestSide;
}

std::string FfmpegVideoSession::describe() const {
  std::string text = std::string(kind_.name) + ", " + std::to_string(setup_.width) + " x " +
                     std::to_string(setup_.height) + ", " + std::to_string(setup_.rate.average / 1000) + " kbit/s";
  if (!kind_.hardware) {
    text += ", threads " + std::to_string(softwareThreads(setup_));
  }
  return text;
}

int FfmpegVideoSession::open() {
  int status = 0;
  context_.reset();
  packet_.reset(av_packet_alloc());
  if (!packet_) {
    return AVERROR(ENOMEM);
  }
  context_ = openVideoEncoder(kind_, setup_, status);
  if (!context_) {
    return status;
  }
  assembler_.emplace(kind_.framing);
  assembler_->readExtradata({context_->extradata, static_cast<std::size_t>(context_->extradata_size)});
  converter_.emplace(
      PictureConverter::Target{setup_.width, setup_.height, statedWidth_, statedHeight_, setup_.layout, setup_.colour});
  return 0;
}

int FfmpegVideoSession::encodeFrame(const std::shared_ptr<PixelBuffer>& picture, std::int64_t presentationTime,
                                    VideoFrameProperties properties, std::uint64_t reference) {
  if (!picture || !PictureConverter::accepts(*picture)) {
    return AVERROR(EINVAL);
  }
  if (const int status = prepareFor(*picture); status != 0) {
    return status;
  }
  if (const int status = followRate(); status != 0) {
    return status;
  }
  AVFrame* frame = converter_->convert(picture);
  if (frame == nullptr) {
    return AVERROR(ENOMEM);
  }
  lastTime_ = std::max(presentationTime, lastTime_ + 1);
  frame->pts = lastTime_;
  pending_.push_back({lastTime_, reference, properties.leadingSei});
  const int sent = submit(*frame, properties.forceKeyFrame);
  converter_->release();
  if (sent != 0) {
    return fail(sent);
  }
  const int received = receive();
  return received == 0 ? 0 : fail(received);
}

/// The stream's colour and the encoder's input layout are settled by the first picture.
int FfmpegVideoSession::prepareFor(const PixelBuffer& picture) {
  if (context_ && knowsPictures_) {
    return 0;
  }
  const EncoderSetup before = setup_;
  if (!knowsPictures_) {
    setup_.colour = colourOf(picture);
    setup_.layout = kind_.usesVaapi ? AV_PIX_FMT_NV12 : nearestLayout(picture.format());
    knowsPictures_ = true;
  }
  return context_ && setup_.colour == before.colour && setup_.layout == before.layout ? 0 : open();
}

int FfmpegVideoSession::followRate() {
  {
    const std::lock_guard lock(mutex_);
    if (!nextRate_) {
      return 0;
    }
    setup_.rate = *std::exchange(nextRate_, std::nullopt);
  }
  if (kind_.changesRate) {
    setEncoderRate(*context_, setup_.rate);
    return 0;
  }
  completeFrames();
  return open();
}

int FfmpegVideoSession::submit(AVFrame& frame, bool forceKeyFrame) {
  AVFrame* submitted = &frame;
  if (kind_.usesVaapi) {
    if (const int status = upload(frame); status < 0) {
      return status;
    }
    submitted = surface_.get();
  }
  submitted->pict_type = forceKeyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
  int status = avcodec_send_frame(context_.get(), submitted);
  if (status == AVERROR(EAGAIN)) {
    // The encoder wants to give before it takes.
    status = receive();
    if (status == 0) {
      status = avcodec_send_frame(context_.get(), submitted);
    }
  }
  if (surface_) {
    av_frame_unref(surface_.get());
  }
  return status;
}

int FfmpegVideoSession::upload(const AVFrame& frame) {
  if (!surface_) {
    surface_.reset(av_frame_alloc());
  }
  if (!surface_) {
    return AVERROR(ENOMEM);
  }
  av_frame_unref(surface_.get());
  if (const int status = av_hwframe_get_buffer(context_->hw_frames_ctx, surface_.get(), 0); status < 0) {
    return status;
  }
  surface_->pts = frame.pts;
  return av_hwframe_transfer_data(surface_.get(), &frame, 0);
}

int FfmpegVideoSession::receive() {
  return ffmpeg::receivePackets(*context_, *packet_, [this] { deliver(*packet_); });
}

void FfmpegVideoSession::deliver(AVPacket& packet) {
  // Pictures that the encoder left out come before the packet's own.
  while (!pending_.empty() && pending_.front().presentationTime < packet.pts) {
    const Pending skipped = pending_.front();
    pending_.pop_front();
    output_(skipped.reference, 0, nullptr);
  }
  if (pending_.empty()) {
    return;
  }
  const Pending pending = pending_.front();
  pending_.pop_front();
  const VideoSample sample = assembler_->assemble(packet, pending.leadingSei);
  output_(pending.reference, 0, &sample);
}

/// The newest picture's error is the return value of its call; the others were accepted and are owed an answer.
int FfmpegVideoSession::fail(int status) {
  std::deque<Pending> lost;
  lost.swap(pending_);
  if (!lost.empty()) {
    lost.pop_back();
  }
  for (const Pending& pending : lost) {
    output_(pending.reference, status, nullptr);
  }
  return status;
}

void FfmpegVideoSession::completeFrames() {
  // An encoder that was drained takes no more pictures, so one that holds nothing back is left alone.
  if (!context_ || pending_.empty()) {
    return;
  }
  int status = avcodec_send_frame(context_.get(), nullptr);
  if (status == 0) {
    status = receive();
  }
  std::deque<Pending> lost;
  lost.swap(pending_);
  for (const Pending& pending : lost) {
    output_(pending.reference, status, nullptr);
  }
  context_.reset();
}

void FfmpegVideoSession::setBitRate(std::int64_t averageBitRate, double dataRateLimitBytes,
                                    std::int64_t dataRateLimitSeconds) {
  const EncoderRate rate = encoderRate(std::clamp(averageBitRate, kLowestBitRate, kHighestBitRate), dataRateLimitBytes,
                                       dataRateLimitSeconds);
  const std::lock_guard lock(mutex_);
  nextRate_ = rate;
}

}  // namespace zellive
