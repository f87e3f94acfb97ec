// The stages of a session, each made when it is first wanted, and what it is made of.
#include <utility>

#include "zellive/capture/ZelLiveVideoCapture.h"
#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive {

template <typename Stage, typename Make>
std::shared_ptr<Stage> ZelLiveSession::stage(std::shared_ptr<Stage> Stages::*member, Make make) {
  {
    const std::lock_guard lock(stagesLock_);
    if (stages_.*member || spent_) {
      return stages_.*member;
    }
  }
  // Made with no lock held: it takes time and logs, and a log handler of the application's may well ask the session
  // something. Of two made at once the first stays.
  std::shared_ptr<Stage> made = make();
  const std::lock_guard lock(stagesLock_);
  if (!spent_ && !(stages_.*member)) {
    stages_.*member = made;
  }
  return stages_.*member;
}

std::shared_ptr<ZelStreamRtmpSocket> ZelLiveSession::makeSocket(std::shared_ptr<ZelLiveStreamInfo> streamInfo) {
  return ZelStreamRtmpSocket::create(std::move(streamInfo), static_cast<std::int64_t>(reconnectInterval_.load()),
                                     static_cast<std::int64_t>(reconnectCount_.load()), platform_);
}

std::shared_ptr<ZelStreamRtmpSocket> ZelLiveSession::socket() const {
  const std::lock_guard lock(stagesLock_);
  return stages_.socket;
}

std::shared_ptr<ZelLiveAudioCapture> ZelLiveSession::audioCapture() {
  if (!hasType(ZelLiveCaptureAudio)) {
    return nullptr;
  }
  return stage(&Stages::audioCapture, [this] {
    auto capture = ZelLiveAudioCapture::create(audioConfiguration(), platform_);
    if (capture) {
      capture->setDelegate(weak_from_this());
    }
    return capture;
  });
}

std::shared_ptr<ZelLiveVideoCapture> ZelLiveSession::videoCapture() {
  if (!hasType(ZelLiveCaptureVideo)) {
    return nullptr;
  }
  return stage(&Stages::videoCapture, [this]() -> std::shared_ptr<ZelLiveVideoCapture> {
    const auto configuration = videoConfiguration();
    if (!configuration) {
      return nullptr;  // The session has ended meanwhile.
    }
    auto capture = ZelLiveVideoCapture::create(configuration, platform_);
    capture->setDelegate(weak_from_this());
    return capture;
  });
}

std::shared_ptr<ZelHardwareAudioEncoder> ZelLiveSession::audioEncoder() {
  return stage(&Stages::audioEncoder, [this] {
    auto encoder = ZelHardwareAudioEncoder::create(audioConfiguration(), platform_);
    if (encoder) {
      encoder->setDelegate(weak_from_this());
    }
    return encoder;
  });
}

std::shared_ptr<ZelHardwareVideoEncoder> ZelLiveSession::videoEncoder() {
  if (auto encoder = existingVideoEncoder()) {
    return encoder;
  }
  // It takes up to a second and much memory to make: pictures that come meanwhile get none rather than one each.
  if (makingVideoEncoder_.exchange(true)) {
    return nullptr;
  }
  auto encoder = stage(&Stages::videoEncoder, [this] {
    auto made = ZelHardwareVideoEncoder::create(videoConfiguration(), platform_, videoEncoderOptions());
    if (made) {
      made->setDelegate(weak_from_this());
    }
    return made;
  });
  makingVideoEncoder_ = false;
  return encoder;
}

std::shared_ptr<ZelHardwareVideoEncoder> ZelLiveSession::existingVideoEncoder() const {
  const std::lock_guard lock(stagesLock_);
  return stages_.videoEncoder;
}

std::shared_ptr<ZelLivePixelBufferFitSizeFilter> ZelLiveSession::existingFilter() const {
  const std::lock_guard lock(stagesLock_);
  return stages_.pbFilter;
}

std::shared_ptr<ZelLiveAudioPool> ZelLiveSession::audioPool() {
  return stage(&Stages::audioPool, [this] {
    auto pool = ZelLiveAudioPool::create();
    pool->setDelegate(weak_from_this());
    return pool;
  });
}

std::shared_ptr<ZelLivePixelBufferFitSizeFilter> ZelLiveSession::pbFilter() {
  return stage(&Stages::pbFilter, [this]() -> std::shared_ptr<ZelLivePixelBufferFitSizeFilter> {
    const auto configuration = videoConfiguration();
    if (!configuration) {
      return nullptr;
    }
    auto filter = ZelLivePixelBufferFitSizeFilter::create(configuration->videoSize(), platform_);
    filter->setDelegate(weak_from_this());
    return filter;
  });
}

ZelLiveSession::AudioConfiguration ZelLiveSession::audioConfiguration() const {
  const std::lock_guard lock(stagesLock_);
  return stages_.audioConfiguration;
}

ZelLiveSession::VideoConfiguration ZelLiveSession::videoConfiguration() const {
  const std::lock_guard lock(stagesLock_);
  return stages_.videoConfiguration;
}

}  // namespace zellive
