// The road of audio and pictures from the sources through the encoders to the publisher, on one clock.
#include <algorithm>
#include <optional>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive {
namespace {

constexpr std::int64_t kNoUploadError = -5801;
constexpr std::int64_t kRecorderWarning = 1201;
constexpr std::int64_t kRecorderInactive = 1202;

/// A lone SEI is nothing that could stand for a picture.
bool holdsPicture(const ZelLiveVideoFrame& frame) {
  constexpr std::uint8_t sei = 6;
  return frame.data.length() > 0 && (frame.data.bytes()[0] & 0x1F) != sei;
}

}  // namespace

/// The stream is up: it starts from zero, unless it was running or is being stopped.
void ZelLiveSession::beginUploading() {
  {
    const std::lock_guard stages(stagesLock_);
    if (uploading_ || spent_) {
      return;
    }
    hasCaptureAudio_ = false;
    hasKeyFrameVideo_ = false;
    recoderNoAudioFrame_ = 0;
    recoderNoVideoFrame_ = 0;
    {
      const std::lock_guard lock(lock_);
      relativeTimeStamp_ = 0;
      lastAudioTimestamp_ = 0.0;
    }
    videoSeqId_ = 0;
    audioSeqId_ = 0;
    didNotiLiveStatusToServer_ = false;
    uploading_ = true;
  }
  // A source that was turned off before the stream was up is still to be stood in for.
  if (inputAudioOff_) {
    startFiller(&ZelLiveSession::fillAudioFrameInTurnOffAudio, audioFillerGeneration_);
  }
  if (inputVideoOff_) {
    startFiller(&ZelLiveSession::fillVideoFrameInTurnOffVideo, videoFillerGeneration_);
  }
}

bool ZelLiveSession::AVAlignnment() const {
  return !hasType(ZelLiveAnyAudio) || !hasType(ZelLiveAnyVideo) || (hasCaptureAudio_ && hasKeyFrameVideo_);
}

std::uint64_t ZelLiveSession::uploadTimestamp(std::uint64_t timestamp) const {
  const std::lock_guard lock(lock_);
  return timestamp - relativeTimeStamp_;
}

double ZelLiveSession::audioClock() const {
  const std::lock_guard lock(lock_);
  return lastAudioTimestamp_;
}

double ZelLiveSession::audioRate() const {
  const auto configuration = audioConfiguration();
  return configuration ? static_cast<double>(configuration->audioSampleRate()) : 0.0;
}

/// A clock that counts with anything else stands still, races away or is not a number.
bool ZelLiveSession::isSampleRate(double rate) { return rate >= 1.0 && rate <= 1e6; }

// ---- Audio in

void ZelLiveSession::pushAudio(std::span<const std::uint8_t> data) {
  if (!hasType(ZelLiveInputAudio) || !uploading_ || inputAudioOff_) {
    return;
  }
  const auto format = inputAudioASBD();
  if (sampled(10000)) {
    ZEL_LOG_INFO("Live: input audio sampleRate: %f channel: %d data: %lu(1/10000)", format.mSampleRate,
                 static_cast<int>(format.mChannelsPerFrame), static_cast<unsigned long>(data.size()));
  }
  receiveAudio(data, format.mSampleRate);
}

void ZelLiveSession::audioCaptureOutputAudioData(ZelLiveAudioCapture*, std::span<const std::uint8_t> audioData) {
  if (uploading_) {
    receiveAudio(audioData, audioRate());
  }
}

void ZelLiveSession::replayCaptureOutputAudioData(ZelLiveReplayCapture*, std::span<const std::uint8_t> audioData) {
  if (!hasType(ZelLiveInputAudio) && uploading_) {
    receiveAudio(audioData, audioRate());
  }
}

void ZelLiveSession::receiveAudio(std::span<const std::uint8_t> data, double sampleRate) {
  if (!isSampleRate(sampleRate)) {
    if (sampled(1000)) {
      ZEL_LOG_ERROR("Live: audio with a sample rate of %f is dropped", sampleRate);
    }
    return;
  }
  const auto pool = audioPool();
  if (!pool || data.empty()) {
    return;
  }
  const std::lock_guard oneSource(audioLock_);
  // The samples are counted as one channel whatever the channel count is.
  const auto samples = static_cast<float>(data.size() / 2);
  const float duration = samples / (static_cast<float>(sampleRate) / 1000.0F);
  double clock = 0;
  {
    const std::lock_guard lock(lock_);
    lastAudioTimestamp_ += static_cast<double>(duration);
    // Less than a sample is no rhythm for silence.
    audioSampleMS_ = samples > 0 ? samples : audioSampleMS_;
    clock = lastAudioTimestamp_;
  }
  const auto seqId = ++audioSeqId_;
  if (seqId % 2000 == 0) {
    ZEL_LOG_INFO("Live: timestamp:%f seqId:(a:%lld v:%lld) ms:%f (1/2000)", clock, static_cast<long long>(seqId),
                 static_cast<long long>(videoSeqId_.load()), static_cast<double>(duration));
  }
  {
    const FrameOrder::Making making(order_, ZelFrameKind::Audio, clock);
    pool->receiveAudioData(data, clock);
  }
  handOffInOrder();
}

void ZelLiveSession::processedAudioData(ZelLiveAudioPool&, std::span<const std::uint8_t> audioData, double timeStamp) {
  if (!uploading_) {
    return;
  }
  if (auto encoder = audioEncoder()) {
    encoder->encodeAudioData(audioData, static_cast<std::uint64_t>(timeStamp));
  }
}

// ---- Pictures in

void ZelLiveSession::pushVideo(std::shared_ptr<PixelBuffer> pixelBuffer) {
  if (!pixelBuffer || !hasType(ZelLiveInputVideo) || !uploading_) {
    return;
  }
  const auto pushedRate = inputVideoFrameRate_.load();
  if (sampled(10000)) {
    ZEL_LOG_INFO("Live: input video frameRate: %lu: buffer: %s(1/10000)", static_cast<unsigned long>(pushedRate),
                 describeObject("PixelBuffer", pixelBuffer.get()).c_str());
  }
  const auto configuration = videoConfiguration();
  if (!configuration) {
    return;
  }
  const auto rate = configuration->videoFrameRate();
  // From before its stamp on, and not under lock_.
  std::optional<FrameOrder::Making> making(std::in_place, order_, ZelFrameKind::Video, audioClock());
  double clock = 0;
  {
    const std::lock_guard lock(lock_);
    if (++fr_ < (rate == 0 ? 0 : pushedRate / rate)) {
      return;
    }
    fr_ = 0;
    clock = lastAudioTimestamp_;
  }
  logPicture(++videoSeqId_, clock, static_cast<double>(pushedRate));
  render(pixelBuffer, clock, true);
  making.reset();
  handOffInOrder();
}

void ZelLiveSession::videoCaptureOutputPixelBuffer(ZelLiveVideoCapture*, std::shared_ptr<PixelBuffer> pixelBuffer) {
  renderCaptured(pixelBuffer);
}

void ZelLiveSession::replayCaptureOutputPixelBuffer(ZelLiveReplayCapture*, std::shared_ptr<PixelBuffer> pixelBuffer) {
  renderCaptured(pixelBuffer);
}

void ZelLiveSession::renderCaptured(const std::shared_ptr<PixelBuffer>& pixelBuffer) {
  const auto configuration = videoConfiguration();
  if (!uploading_ || !configuration) {
    return;
  }
  // From before its stamp on, and not under lock_.
  std::optional<FrameOrder::Making> making(std::in_place, order_, ZelFrameKind::Video, audioClock());
  double clock = 0;
  {
    const std::lock_guard lock(lock_);
    clock = lastVideoTimestamp_ = lastAudioTimestamp_;
  }
  logPicture(++videoSeqId_, clock, static_cast<double>(configuration->videoFrameRate()));
  render(pixelBuffer, clock, false);
  making.reset();
  handOffInOrder();
}

void ZelLiveSession::logPicture(std::int64_t videoSeqId, double clock, double frameRate) const {
  if (videoSeqId % 1000 == 0) {
    ZEL_LOG_INFO("Live: timestamp:(a:%f v:%f) seqId:(a:%lld v:%lld) ms:%f (1/1000)", clock, clock,
                 static_cast<long long>(audioSeqId_.load()), static_cast<long long>(videoSeqId),
                 frameRate > 0 ? 1000.0 / frameRate : 0.0);
  }
}

/// `copies`: the picture's owner may change it as soon as this returns.
void ZelLiveSession::render(const std::shared_ptr<PixelBuffer>& pixelBuffer, double clock, bool copies) {
  const auto filter = pbFilter();
  if (!filter || !pixelBuffer) {
    return;
  }
  // What has to be drawn and cannot be as it is gets another format here, with the copy if there is to be one.
  if (!filter->passes(pixelBuffer->width(), pixelBuffer->height()) && !filter->draws(*pixelBuffer)) {
    filter->renderPixelBuffer(tool_.copyPixelBufferAsBgra(pixelBuffer), clock);
  } else {
    filter->renderPixelBuffer(copies ? tool_.copyPixelBuffer(pixelBuffer) : pixelBuffer, clock);
  }
}

void ZelLiveSession::filterPixelBuffer(ZelLivePixelBufferFitSizeFilter& filter,
                                       std::shared_ptr<PixelBuffer> pixelBuffer, double timeStamp) {
  {
    const std::lock_guard lock(stagesLock_);
    if (stages_.pbFilter.get() != &filter) {
      return;
    }
  }
  if (isBackGround_) {
    return;  // As the encoder does; one that is yet to be made has not heard of it.
  }
  if (auto encoder = videoEncoder()) {
    encoder->encodeVideoData(std::move(pixelBuffer), static_cast<std::uint64_t>(timeStamp));
  }
}

void ZelLiveSession::filterDidFinishPicture(ZelLivePixelBufferFitSizeFilter&) {
  if (uploading_) {
    handOffInOrder();
  }
}

// ---- Encoded frames

void ZelLiveSession::audioEncoderAudioFrame(ZelAudioEncoding&, std::shared_ptr<const ZelLiveAudioFrame> frame) {
  if (!uploading_) {
    return;
  }
  const bool first = !hasCaptureAudio_.exchange(true);
  if (AVAlignnment()) {
    {
      const std::lock_guard lock(stagesLock_);
      lastAudioFrame_ = frame;
    }
    handOff(std::move(frame));
    return;
  }
  if (first) {
    // The viewer would otherwise wait for the next regular key frame, seconds away.
    if (auto encoder = existingVideoEncoder()) {
      encoder->requestKeyFrame();
    }
  }
  if (hasType(ZelLiveInputVideo) && ++recoderNoVideoFrame_ % 150 == 0) {
    notifyState(ZelLiveSessionStateNoVideo);
  }
  if (sampled(10)) {
    ZEL_LOG_WARNING("Live: has't video stream, current captureType %ld", static_cast<long>(captureType_));
  }
}

void ZelLiveSession::videoEncoderVideoFrame(ZelHardwareVideoEncoder&, std::shared_ptr<const ZelLiveVideoFrame> frame) {
  if (!uploading_) {
    return;
  }
  // A picture arrives with its first NAL unit: one whose SEI came too early is dropped whole. Its slice alone would be
  // spent on the sequence header, and the picture with it.
  const bool arrives = !std::exchange(pictureBegun_, frame->isSupplement() && !AVAlignnment());
  if (frame->isKeyFrame && hasCaptureAudio_ && arrives) {
    hasKeyFrameVideo_ = true;
    pictureBegun_ = false;
  }
  if (!AVAlignnment()) {
    videoFrameWithoutAlignment();
    return;
  }
  if (isBackGround_) {
    return;
  }
  if (frame->isKeyFrame && holdsPicture(*frame)) {
    const std::lock_guard lock(stagesLock_);
    lastVideoFrame_ = frame;
  }
  handOff(std::move(frame));
}

void ZelLiveSession::videoEncoderDidFinishPicture(ZelHardwareVideoEncoder&) {
  if (uploading_) {
    handOffInOrder();
  }
}

void ZelLiveSession::handOff(Frame frame) {
  order_.add(std::move(frame));
  handOffInOrder();
}

void ZelLiveSession::handOffInOrder() {
  std::shared_ptr<ZelLivePixelBufferFitSizeFilter> filter;
  std::shared_ptr<ZelHardwareVideoEncoder> encoder;
  // Asked in the order in which a picture travels, so that none slips by between two answers; the encoder may be made
  // for a picture that leaves the renderer meanwhile.
  const auto oldestPicture = [&] {
    const auto oldest = [](const auto& stage) {
      return stage ? stage->oldestPicture().value_or(FrameOrder::none) : FrameOrder::none;
    };
    filter = filter ? filter : existingFilter();
    const auto unfitted = oldest(filter);
    encoder = encoder ? encoder : existingVideoEncoder();
    return std::min(unfitted, oldest(encoder));
  };
  order_.drain(oldestPicture, [this](Frame frame) { pushSendBuffer(std::move(frame)); });
}

void ZelLiveSession::videoFrameWithoutAlignment() {
  const auto count = ++recoderNoAudioFrame_;
  if (hasType(ZelLiveInputAudio)) {
    if (count % 100 == 0) {
      notifyState(ZelLiveSessionStateNoAudio);
    }
  } else if (count == 300 && hasType(ZelLiveReplayAudio)) {
    ZEL_LOG_ERROR("Live: replayCapture has't audio stream");
    uploading_ = false;
    setState(ZelLiveSessionStateCaptureFailed);
  }
  if (sampled(10)) {
    ZEL_LOG_WARNING("Live: has't audio stream, current captureType %ld", static_cast<long>(captureType_));
  }
}

void ZelLiveSession::pushSendBuffer(Frame frame) {
  if (auto publisher = socket()) {
    publisher->sendFrame(std::move(frame));
  }
  if (!didNotiLiveStatusToServer_.exchange(true)) {
    liveUpdateStatus(0);
  }
}

// ---- Checks and errors

void ZelLiveSession::audioCheck() {
  if (hasType(ZelLiveInputAudio) && !hasCaptureAudio_) {
    ZEL_LOG_WARNING("Live: audioCheck has been no audio streaming since the beginning");
    notifyState(ZelLiveSessionStateNoAudio);
  }
}

void ZelLiveSession::videoCheck() {
  if (hasType(ZelLiveInputVideo) && !hasKeyFrameVideo_) {
    ZEL_LOG_WARNING("Live: videoCheck has been no video streaming since the beginning");
    notifyState(ZelLiveSessionStateNoVideo);
  }
}

void ZelLiveSession::replayCaptureOutputError(ZelLiveReplayCapture* output, const ZelLiveCaptureError& error) {
  ZEL_LOG_ERROR("Live: replayCapture error = Error Domain=%s Code=%lld \"%s\" capture: %s session: %s",
                error.domain.c_str(), static_cast<long long>(error.code), error.message.c_str(),
                describeObject("ZelLiveReplayCapture", output).c_str(), describeObject("ZelLiveSession", this).c_str());
  switch (error.code) {
    case kNoUploadError:
      uploading_ = false;
      setState(ZelLiveSessionStateBroadcastFailed);
      break;
    case kRecorderWarning:
      setState(ZelLiveSessionStateBroadcastWarning);
      break;
    case kRecorderInactive:
      setState(ZelLiveSessionStateBroadcastInactive);
      break;
    default:
      uploading_ = false;
      setState(ZelLiveSessionStateCaptureFailed);
      break;
  }
}

}  // namespace zellive
