// What keeps a stream alive while the application has turned a pushed source off or is in the background.
#include <array>
#include <utility>
#include <vector>

#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive {

using namespace std::chrono_literals;

namespace {

constexpr std::chrono::duration<double, std::milli> kPictureFillerInterval = 1s;
/// Silence that is later than this, on a machine that was stopped, is not made up for.
constexpr auto kMostBehind = 1s;

}  // namespace

std::shared_ptr<Queue> ZelLiveSession::mediaQueue() {
  const std::lock_guard lock(stagesLock_);
  if (!a_v_process_queue_ && !spent_) {
    a_v_process_queue_ = platform_->queues->makeSerialQueue("com.morrowfen.a_v_process.queue");
  }
  return a_v_process_queue_;
}

void ZelLiveSession::startFiller(void (ZelLiveSession::*filler)(std::uint64_t),
                                 std::atomic<std::uint64_t>& generation) {
  const auto current = ++generation;
  if (auto queue = mediaQueue()) {
    queue->async([weak = weak_from_this(), filler, current] {
      if (auto self = weak.lock()) {
        (self.get()->*filler)(current);
      }
    });
  }
}

void ZelLiveSession::fillAgain(std::chrono::duration<double, std::milli> delay,
                               void (ZelLiveSession::*filler)(std::uint64_t), std::uint64_t generation) {
  if (auto queue = mediaQueue()) {
    queue->after(std::chrono::duration_cast<std::chrono::nanoseconds>(delay),
                 [weak = weak_from_this(), filler, generation] {
                   if (auto self = weak.lock()) {
                     (self.get()->*filler)(generation);
                   }
                 });
  }
}

void ZelLiveSession::turnOffAudio(bool off) {
  if (inputAudioOff_.exchange(off) == off) {
    return;
  }
  const double now = platform_->clock->milliseconds();
  const auto seqId = static_cast<long long>(audioSeqId_.load());
  if (off) {
    ZEL_LOG_INFO("Live: start turn off audio: %f %lld", now, seqId);
    startFiller(&ZelLiveSession::fillAudioFrameInTurnOffAudio, audioFillerGeneration_);
  } else {
    ZEL_LOG_INFO("Live: end turn off audio: %f %lld", now, seqId);
  }
}

void ZelLiveSession::turnOffVideo(bool off) {
  if (inputVideoOff_.exchange(off) == off) {
    return;
  }
  const double now = platform_->clock->milliseconds();
  const auto filled = static_cast<long long>(fillVideoFrame_.load());
  if (off) {
    ZEL_LOG_INFO("Live: start turn off video: %f %lld", now, filled);
    startFiller(&ZelLiveSession::fillVideoFrameInTurnOffVideo, videoFillerGeneration_);
  } else {
    ZEL_LOG_INFO("Live: end turn off video: %f %lld", now, filled);
  }
}

void ZelLiveSession::fillAudioFrameInTurnOffAudio(std::uint64_t generation) {
  if (!inputAudioOff_ || !uploading_ || generation != audioFillerGeneration_) {
    return;
  }
  std::size_t samples = 0;
  {
    const std::lock_guard lock(lock_);
    samples = static_cast<std::size_t>(audioSampleMS_);
  }
  const double rate = hasType(ZelLiveInputAudio) ? inputAudioASBD().mSampleRate : audioRate();
  if (samples == 0 || !isSampleRate(rate)) {
    return;
  }
  // Counted on from the run before, not from now: what each run is late and takes would add up, and the stream's clock
  // would fall behind the world's.
  const auto now = platform_->clock->now();
  if (std::exchange(silenceGeneration_, generation) != generation || now - silenceDue_ > kMostBehind) {
    silenceDue_ = now;
  }
  const std::vector<std::uint8_t> silence(samples * 2);
  receiveAudio(silence, rate);
  const auto duration = static_cast<float>(samples) / (static_cast<float>(rate) / 1000.0F);
  silenceDue_ +=
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double, std::milli>(duration));
  fillAgain(silenceDue_ - platform_->clock->now(), &ZelLiveSession::fillAudioFrameInTurnOffAudio, generation);
}

void ZelLiveSession::fillVideoFrameInTurnOffVideo(std::uint64_t generation) {
  if (isBackGround_ || !inputVideoOff_ || !uploading_ || generation != videoFillerGeneration_) {
    return;
  }
  sendFillerPicture();
  fillAgain(kPictureFillerInterval, &ZelLiveSession::fillVideoFrameInTurnOffVideo, generation);
}

void ZelLiveSession::fillVideoInBackgroud(std::uint64_t generation) {
  if (!isBackGround_ || !AVAlignnment() || !uploading_ || generation != backgroundFillerGeneration_) {
    return;
  }
  sendFillerPicture();
  fillAgain(kPictureFillerInterval, &ZelLiveSession::fillVideoInBackgroud, generation);
}

void ZelLiveSession::sendFillerPicture() {
  ++videoSeqId_;
  ++fillVideoFrame_;
  Frame last;
  {
    const std::lock_guard lock(stagesLock_);
    last = lastVideoFrame_;
  }
  double clock = 0;
  {
    const std::lock_guard lock(lock_);
    clock = lastVideoTimestamp_ = lastAudioTimestamp_;
  }
  if (last && last->kind() == ZelFrameKind::Video) {
    // A record is never changed once it has been handed on: the filler is a new one around the same bytes.
    auto filler = std::make_shared<ZelLiveVideoFrame>(static_cast<const ZelLiveVideoFrame&>(*last));
    filler->timestamp = static_cast<std::uint64_t>(clock);
    handOff(std::move(filler));
  }
  if (auto encoder = existingVideoEncoder()) {
    encoder->fillVideoFrame();
  }
}

}  // namespace zellive
