#include "zellive/session/ZelLiveSession.h"

#include <utility>

#include "zellive/capture/ZelLiveVideoCapture.h"
#include "zellive/platform/Log.h"

namespace zellive {

using namespace std::chrono_literals;

namespace {

constexpr auto kStartUpCheckDelay = 10s;

}  // namespace

std::shared_ptr<ZelLiveSession> ZelLiveSession::create(std::int64_t captureType) {
  return create(captureType, ZelLiveVideoQualityMedium);
}

std::shared_ptr<ZelLiveSession> ZelLiveSession::create(std::int64_t captureType, std::uint64_t videoQuality) {
  return create(ZelLiveAudioConfiguration::defaultConfiguration(),
                ZelLiveVideoConfiguration::defaultConfigurationForQuality(videoQuality, captureType), captureType);
}

std::shared_ptr<ZelLiveSession> ZelLiveSession::create(AudioConfiguration audioConfiguration,
                                                       VideoConfiguration videoConfiguration) {
  return create(std::move(audioConfiguration), std::move(videoConfiguration),
                ZelLiveCaptureAudio | ZelLiveCaptureVideo);
}

std::shared_ptr<ZelLiveSession> ZelLiveSession::create(AudioConfiguration audioConfiguration,
                                                       VideoConfiguration videoConfiguration, std::int64_t captureType,
                                                       std::shared_ptr<const Platform> platform) {
  struct Shared : ZelLiveSession {
    Shared(AudioConfiguration a, VideoConfiguration v, std::int64_t type, std::shared_ptr<const Platform> set)
        : ZelLiveSession(std::move(a), std::move(v), type, std::move(set)) {}
  };
  auto session = std::make_shared<Shared>(std::move(audioConfiguration), std::move(videoConfiguration), captureType,
                                          std::move(platform));
  session->observeApplication();
  return session;
}

ZelLiveSession::ZelLiveSession(AudioConfiguration audioConfiguration, VideoConfiguration videoConfiguration,
                               std::int64_t captureType, std::shared_ptr<const Platform> platform)
    : platform_(platform ? std::move(platform) : defaultPlatform()), captureType_(captureType) {
  if (!audioConfiguration && hasType(ZelLiveCaptureAudio | ZelLiveInputAudio)) {
    throw ZelException("ZelLiveSession init error.", "audioConfiguration is nil.");
  }
  if (!videoConfiguration && hasType(ZelLiveCaptureVideo | ZelLiveInputVideo)) {
    throw ZelException("ZelLiveSession init error.", "videoConfiguration is nil.");
  }
  stages_.audioConfiguration = std::move(audioConfiguration);
  stages_.videoConfiguration = std::move(videoConfiguration);
  if (hasType(ZelLiveInputAudio)) {
    inputAudioASBD_.mSampleRate = 48000.0;
    inputAudioASBD_.mChannelsPerFrame = 1;
    audioSampleMS_ = 1024.0F;
  }
  if (hasType(ZelLiveInputVideo)) {
    inputVideoFrameRate_ = 30;
  }
}

ZelLiveSession::~ZelLiveSession() {
  ZEL_LOG_INFO("Live: dealloc %s", describeObject("ZelLiveSession", this).c_str());
  // A publisher that waits to reconnect keeps itself alive: without this it would go on with nobody to feed it.
  if (auto publisher = socket()) {
    publisher->stop();
  }
  clean();
}

void ZelLiveSession::observeApplication() {
  const auto observe = [this](const char* name, void (ZelLiveSession::*handler)()) {
    observations_.push_back(
        platform_->notifications->addObserver(name, [weak = weak_from_this(), handler](const UserInfo&) {
          if (auto self = weak.lock()) {
            (self.get()->*handler)();
          }
        }));
  };
  observe(notification::DidEnterBackground, &ZelLiveSession::willEnterBackground);
  observe(notification::WillEnterForeground, &ZelLiveSession::willEnterForeground);
  observe(notification::WillResignActive, &ZelLiveSession::willResignActive);
  observe(notification::DidBecomeActive, &ZelLiveSession::becomeActive);
}

// ---- Control

void ZelLiveSession::startLive(std::shared_ptr<ZelLiveStreamInfo> streamInfo) {
  if (!streamInfo) {
    return;
  }
  const char* refusal = nullptr;
  {
    const std::lock_guard lock(stagesLock_);
    if (spent_ || stages_.streamInfo) {
      refusal = spent_ ? "ended" : "started already";
    } else {
      if (!streamInfo->audioConfiguration) {
        streamInfo->audioConfiguration = stages_.audioConfiguration;
      }
      if (!streamInfo->videoConfiguration) {
        streamInfo->videoConfiguration = stages_.videoConfiguration;
      }
      stages_.streamInfo = streamInfo;
    }
  }
  if (refusal != nullptr) {
    ZEL_LOG_WARNING("Live: this session has %s; a new run needs a new session", refusal);
    return;
  }
  auto publisher = makeSocket(std::move(streamInfo));
  publisher->setDelegate(weak_from_this());
  {
    const std::lock_guard lock(stagesLock_);
    if (spent_) {
      return;
    }
    stages_.socket = publisher;
  }
  if (hasType(ZelLiveAnyReplay)) {
    setRunning(true);
  }
  publisher->start();
  liveMonitor();
  if (hasType(ZelLiveAnyVideo)) {
    // Made while the connection is: a first picture that had to wait for its encoder would come late to the stream.
    platform_->queues->globalQueue()->async([weak = weak_from_this()] {
      if (auto self = weak.lock()) {
        (void)self->videoEncoder();
      }
    });
  }

  const auto schedule = [this](void (ZelLiveSession::*check)()) {
    return platform_->queues->mainQueue()->after(kStartUpCheckDelay, [weak = weak_from_this(), check] {
      if (auto self = weak.lock()) {
        (self.get()->*check)();
      }
    });
  };
  auto audio = schedule(&ZelLiveSession::audioCheck);
  auto video = schedule(&ZelLiveSession::videoCheck);
  const std::lock_guard lock(stagesLock_);
  if (spent_) {
    audio->cancel();
    video->cancel();
    return;
  }
  checks_ = {std::move(audio), std::move(video)};
}

void ZelLiveSession::suspendLive() {
  if (endLive("Suspend")) {
    // The room went with the stream info, so this sends nothing; the order is part of the behaviour.
    liveUpdateStatus(1);
  }
}

void ZelLiveSession::stopLive() {
  if (endLive("Stop")) {
    stopLiveWithRoomId();
  }
}

bool ZelLiveSession::endLive(const char* how) {
  std::vector<std::shared_ptr<DelayedWork>> checks;
  std::shared_ptr<ZelStreamRtmpSocket> publisher;
  {
    const std::lock_guard lock(stagesLock_);
    // From here on nobody else ends this session, and no late report of the publisher's brings it back to life.
    if (std::exchange(spent_, true)) {
      return false;
    }
    uploading_ = false;
    checks.swap(checks_);
    publisher = stages_.socket;
    stoppedSocket_ = publisher;
  }
  ZEL_LOG_INFO("Live: %s Live %s", how, describeObject("ZelLiveSession", this).c_str());
  for (const auto& check : checks) {
    check->cancel();
  }
  if (hasType(ZelLiveAnyReplay)) {
    setRunning(false);
  }
  if (publisher) {
    publisher->stop();
  }
  clean();
  return true;
}

bool ZelLiveSession::waitUntilStopped(std::chrono::milliseconds limit) {
  std::shared_ptr<ZelStreamRtmpSocket> publisher;
  {
    const std::lock_guard lock(stagesLock_);
    publisher = stoppedSocket_;
    if (!spent_ && stages_.socket) {
      return false;  // Still running: nobody has stopped it.
    }
  }
  return !publisher || publisher->waitUntilStopped(limit);
}

void ZelLiveSession::clean() {
  // The stages are released outside the lock: their destructors wait for work that may be calling us.
  Stages released;
  Frame lastVideo;
  Frame lastAudio;
  std::shared_ptr<Queue> queue;
  std::vector<std::shared_ptr<DelayedWork>> checks;
  std::vector<NotificationCenter::Observation> observations;
  {
    const std::lock_guard lock(stagesLock_);
    spent_ = true;
    uploading_ = false;
    std::swap(released, stages_);
    lastVideo.swap(lastVideoFrame_);
    lastAudio.swap(lastAudioFrame_);
    queue.swap(a_v_process_queue_);
    checks.swap(checks_);
    observations.swap(observations_);
  }
  for (const auto& check : checks) {
    check->cancel();
  }
  if (queue) {
    // Let go of elsewhere: that waits for a filler under way, which may be calling the application, which may hold a
    // lock of its own around this call.
    platform_->queues->globalQueue()->async([last = std::move(queue)] { (void)last; });
  }
  released.socket.reset();
  released.streamInfo.reset();
  released.audioEncoder.reset();
  released.videoEncoder.reset();
  released.audioConfiguration.reset();
  released.videoConfiguration.reset();
  released.debugInfo.reset();
  released.videoCapture.reset();
  released.audioCapture.reset();
}

// ---- Publisher

void ZelLiveSession::socketStatus(ZelStreamRtmpSocket& socket, std::uint64_t status) {
  ZEL_LOG_INFO("Live: socket status %lu socket: %s session: %s", static_cast<unsigned long>(status),
               describeObject("ZelStreamRtmpSocket", &socket).c_str(), describeObject("ZelLiveSession", this).c_str());
  switch (status) {
    case ZelStreamSocketStatusConnected:
      beginUploading();
      if (auto encoder = existingVideoEncoder()) {
        encoder->requestKeyFrame();
      }
      break;
    case ZelStreamSocketStatusStopped:
      uploading_ = false;
      break;
    case ZelStreamSocketStatusError:
      liveUpdateStatus(1);
      break;
    default:
      break;
  }
  setState(status);
}

void ZelLiveSession::socketDidErrorCode(ZelStreamRtmpSocket&, std::uint64_t code) {
  onMainQueue([code](ZelLiveSession& session, ZelLiveSessionDelegate& delegate) {
    delegate.liveSessionErrorCode(session, code);
  });
}

void ZelLiveSession::socketBufferStatus(ZelStreamRtmpSocket&, ZelStreamingBufferState status) {
  if (!hasType(ZelLiveAnyVideo) || !adaptiveBitRate_) {
    return;
  }
  const auto encoder = existingVideoEncoder();
  const auto configuration = videoConfiguration();
  if (!encoder || !configuration) {
    return;
  }
  const auto bitRate = static_cast<std::int64_t>(encoder->videoBitRate());
  if (status == ZelStreamingBufferStateDecrease) {
    if (bitRate < static_cast<std::int64_t>(configuration->videoMaxBitRate())) {
      encoder->setVideoBitRate(bitRate + 50000);
      ZEL_LOG_INFO("Live: Increase bitrate %lld", static_cast<long long>(bitRate + 50000));
    }
  } else if (bitRate > static_cast<std::int64_t>(configuration->videoMinBitRate()) && bitRate > 100000) {
    encoder->setVideoBitRate(bitRate - 100000);
    ZEL_LOG_INFO("Live: Decline bitrate %lld", static_cast<long long>(bitRate - 100000));
  }
}

void ZelLiveSession::socketBufferStatusBufferCount(ZelStreamRtmpSocket&, std::uint64_t count) {
  std::shared_ptr<ZelLiveSessionDelegate> delegate;
  {
    const std::lock_guard lock(stagesLock_);
    delegate = stages_.delegate.lock();
  }
  if (delegate) {
    delegate->liveSessionLiveBufferCount(*this, count);
  }
}

void ZelLiveSession::socketDebugInfo(ZelStreamRtmpSocket&, const ZelLiveDebug& info) {
  {
    const std::lock_guard lock(stagesLock_);
    if (spent_) {
      return;
    }
    stages_.debugInfo = info;
  }
  if (showDebugInfo_) {
    onMainQueue([info](ZelLiveSession& session, ZelLiveSessionDelegate& delegate) {
      delegate.liveSessionDebugInfo(session, info);
    });
  }
}

void ZelLiveSession::socketRequestNewUrl(ZelStreamRtmpSocket&) { refreshPushUrl(); }

// ---- Delegate

template <typename Call>
void ZelLiveSession::onMainQueue(Call call) {
  platform_->queues->mainQueue()->async([weak = weak_from_this(), call = std::move(call)] {
    auto self = weak.lock();
    if (!self) {
      return;
    }
    std::shared_ptr<ZelLiveSessionDelegate> delegate;
    {
      const std::lock_guard lock(self->stagesLock_);
      delegate = self->stages_.delegate.lock();
    }
    if (delegate) {
      call(*self, *delegate);
    }
  });
}

void ZelLiveSession::setState(std::uint64_t state) {
  state_ = state;
  notifyState(state);
}

void ZelLiveSession::notifyState(std::uint64_t state) {
  onMainQueue([state](ZelLiveSession& session, ZelLiveSessionDelegate& delegate) {
    delegate.liveSessionLiveStateDidChange(session, state);
  });
}

// ---- Application

void ZelLiveSession::willEnterBackground() {
  ZEL_LOG_INFO("Live: enter backgroud");
  isBackGround_ = true;
  if (auto encoder = existingVideoEncoder()) {
    encoder->willEnterBackground();
  }
  fillVideoFrame_ = 0;
  startFiller(&ZelLiveSession::fillVideoInBackgroud, backgroundFillerGeneration_);
}

void ZelLiveSession::willEnterForeground() {
  ZEL_LOG_INFO("Live: enter foregroud");
  isBackGround_ = false;
  if (auto encoder = existingVideoEncoder()) {
    encoder->willEnterForeground();
  }
  if (inputVideoOff_ && hasType(ZelLiveInputVideo)) {
    startFiller(&ZelLiveSession::fillVideoFrameInTurnOffVideo, videoFillerGeneration_);
  }
  ZEL_LOG_INFO("Live: fill videoFrame %lld in backgroud.", static_cast<long long>(fillVideoFrame_.load()));
}

void ZelLiveSession::willResignActive() { ZEL_LOG_INFO("Live: resign active"); }

void ZelLiveSession::becomeActive() { ZEL_LOG_INFO("Live: become active"); }

// ---- Properties

void ZelLiveSession::setDelegate(std::weak_ptr<ZelLiveSessionDelegate> delegate) {
  const std::lock_guard lock(stagesLock_);
  if (!spent_) {
    stages_.delegate = std::move(delegate);
  }
}

void ZelLiveSession::setRunning(bool running) {
  if (running_.exchange(running) == running) {
    return;
  }
  if (running && hasType(ZelLiveAnyReplay)) {
    ZEL_LOG_WARNING("Live: this version has no screen source; push pictures instead");
  }
  const auto microphone = hasType(ZelLiveAnyReplay) ? nullptr : audioCapture();
  const auto camera = hasType(ZelLiveAnyReplay) ? nullptr : videoCapture();
  bool told = running;
  do {  // Another thread may change it meanwhile: the last word counts.
    told = running_;
    if (microphone) {
      microphone->setRunning(told);
    }
    if (camera) {
      camera->setRunning(told);
    }
  } while (told != running_);
  keyValueObservers_.post("running", {{"new", running ? 1 : 0}});
}

void ZelLiveSession::setPreView(const std::shared_ptr<View>& view) {
  if (const auto camera = videoCapture()) {
    camera->setPreView(view);
    keyValueObservers_.post("preView", {{"new", view ? 1 : 0}});
  }
}

std::shared_ptr<View> ZelLiveSession::preView() {
  const auto camera = videoCapture();
  return camera ? camera->preView() : nullptr;
}

std::int64_t ZelLiveSession::captureDevicePosition() {
  const auto camera = videoCapture();
  return camera ? camera->captureDevicePosition() : CaptureDevicePositionUnspecified;
}

void ZelLiveSession::setCaptureDevicePosition(std::int64_t position) {
  if (const auto camera = videoCapture(); camera && camera->captureDevicePosition() != position) {
    camera->setCaptureDevicePosition(position);
    keyValueObservers_.post("captureDevicePosition", {{"new", camera->captureDevicePosition()}});
  }
}

std::int64_t ZelLiveSession::denoiseLevel() const {
  const std::lock_guard lock(stagesLock_);
  return stages_.audioPool ? stages_.audioPool->denoiseLevel() : 0;
}

void ZelLiveSession::setDenoiseLevel(std::int64_t level) {
  if (auto pool = audioPool()) {
    pool->setDenoiseLevel(level);
  }
}

AudioStreamBasicDescription ZelLiveSession::inputAudioASBD() const {
  const std::lock_guard lock(stagesLock_);
  return inputAudioASBD_;
}

void ZelLiveSession::setInputAudioASBD(const AudioStreamBasicDescription& description) {
  const std::lock_guard lock(stagesLock_);
  inputAudioASBD_ = description;
}

std::shared_ptr<ZelLiveStreamInfo> ZelLiveSession::streamInfo() const {
  const std::lock_guard lock(stagesLock_);
  return stages_.streamInfo;
}

std::optional<ZelLiveDebug> ZelLiveSession::debugInfo() const {
  const std::lock_guard lock(stagesLock_);
  return stages_.debugInfo;
}

void ZelLiveSession::setVideoEncoderOptions(VideoEncoderOptions options) {
  const std::lock_guard lock(stagesLock_);
  videoEncoderOptions_ = std::move(options);
}

VideoEncoderOptions ZelLiveSession::videoEncoderOptions() const {
  const std::lock_guard lock(stagesLock_);
  return videoEncoderOptions_;
}

std::uint64_t ZelLiveSession::droppedPictures() const {
  const auto filter = existingFilter();
  const auto encoder = existingVideoEncoder();
  return (filter ? filter->droppedPictures() : 0) + (encoder ? encoder->droppedPictures() : 0);
}

std::uint64_t ZelLiveSession::videoBitRate() const {
  const auto encoder = existingVideoEncoder();
  return encoder ? encoder->videoBitRate() : 0;
}

NotificationCenter::Observation ZelLiveSession::observe(std::string_view keyPath, NotificationCenter::Handler handler) {
  return keyValueObservers_.addObserver(keyPath, std::move(handler));
}

}  // namespace zellive
