#include "apps/zellive/Publisher.h"

#include <algorithm>
#include <utility>

#include "zellive/transport/RtmpConnection.h"

namespace zellive::tool {
namespace {

using namespace std::chrono_literals;

constexpr auto statusInterval = 1s;
constexpr auto stopLimit = 2s;
constexpr auto drainLimit = 2s;
/// Time for the encoder's last pictures to reach the send buffer.
constexpr auto drainMinimum = 250ms;
constexpr int usageStatus = 2;
/// Pictures that have not come out of the encoder after so long never will.
constexpr auto encoderPatience = 2s;
/// Devices that have begun to deliver by then need no mention.
constexpr auto devicePatience = 5s;

/// Failures are told on the threads where they happen, states on the main queue: by way of it all come in order.
LibraryLog::Note inOrder(const std::shared_ptr<SessionEvents>& events) {
  return [events, queue = defaultPlatform()->queues->mainQueue()](SessionEvents::Event event) {
    queue->async([events, event = std::move(event)] { events->note(event); });
  };
}

}  // namespace

Publisher::Publisher(const PublishOptions& options, Programme& programme, std::shared_ptr<AppState> appState,
                     std::shared_ptr<Output> output, std::shared_ptr<Waker> waker)
    : options_(options),
      programme_(programme),
      appState_(std::move(appState)),
      output_(std::move(output)),
      waker_(std::move(waker)),
      events_(std::make_shared<SessionEvents>(waker_)),
      log_(std::make_shared<LibraryLog>(output_, inOrder(events_))),
      troubles_(maskedUrl(options_.url), options_.reconnectInterval, options_.reconnectCount) {
  if (!programme_.usesHardware()) {
    log_->ignoreHardware();
  }
  log_->install();
}

Publisher::~Publisher() { stop(); }

int Publisher::run() {
  start();
  while (phase_ != Phase::Ended) {
    handleEvents();
    followSignals();
    const auto now = Waker::now();
    step(now);
    sayWhatIsMissing(now);
    showStatus(now);
    if (phase_ != Phase::Ended) {
      waker_->sleepUntil(wakeTime(now));
    }
    if (waker_->endRequested()) {
      phase_ = Phase::Ended;
      handleEvents();
      if (const auto reason = troubles_.nothingPublished(); !reason.empty() && exitStatus_ == 0) {
        fail(0, reason);
      }
    }
  }
  waker_->releaseSignals();
  const auto now = Waker::now();
  stop();
  output_->finish();
  output_->stateChanged(ZelStreamSocketStatusStopped, status(now));
  return exitStatus_;
}

void Publisher::start() {
  startTime_ = Waker::now();
  nextStatus_ = startTime_ + statusInterval;
  const auto audio = ZelLiveAudioConfiguration::defaultConfiguration();
  session_ = ZelLiveSession::create(audio, programme_.video(), programme_.captureType());
  session_->setDelegate(events_);
  session_->setShowDebugInfo(true);
  session_->setAdaptiveBitRate(options_.adaptive);
  session_->setReconnectInterval(options_.reconnectInterval);
  session_->setReconnectCount(options_.reconnectCount);
  session_->setVideoEncoderOptions({options_.encoder, options_.preset});
  if (options_.denoise > 0) {
    session_->setDenoiseLevel(options_.denoise);
  }
  auto info = std::make_shared<ZelLiveStreamInfo>();
  info->setUrl(options_.url);
  info->audioConfiguration = audio;
  info->videoConfiguration = programme_.video();
  programme_.attach(session_);
  session_->startLive(std::move(info));
}

void Publisher::stop() {
  if (session_) {
    droppedBySession_ = session_->droppedPictures();
    session_->stopLive();
    (void)session_->waitUntilStopped(stopLimit);
    session_.reset();
  }
}

void Publisher::handleEvents() {
  const auto batch = events_->take();
  if (batch.report) {
    meter_.report(batch.report->info, batch.report->time);
    bufferCount_ = static_cast<std::uint64_t>(batch.report->info.unSendCount);
    if (meter_.hasRates()) {
      log_->showWarnings();
    }
  }
  bufferCount_ = batch.bufferCount.value_or(bufferCount_);
  for (const auto& event : batch.events) {
    handle(event);
  }
}

void Publisher::handle(const SessionEvents::Event& event) {
  using Kind = SessionEvents::Event::Kind;
  switch (event.kind) {
    case Kind::State:
      handleState(static_cast<std::uint64_t>(event.code));
      break;
    case Kind::Error:
      if (event.code == ZelStreamSocketErrorNetworkUnreachable) {
        output_->trouble(troubles_.networkGone(Waker::now()));
      }
      break;
    case Kind::Failure:
      if (event.code == RtmpFailureUrl) {  // Nothing will mend it.
        fail(0, "cannot publish to " + maskedUrl(options_.url) + ": " + event.words);
        exitStatus_ = usageStatus;
      } else if (const auto trouble = troubles_.connectionFailed(event.code, event.words, Waker::now())) {
        output_->trouble(*trouble);
      }
      break;
    case Kind::NetworkOut:
      troubles_.networkIsOut();
      break;
    case Kind::NetworkChanged:
      output_->trouble(troubles_.networkChanged(Waker::now()));
      break;
  }
}

void Publisher::handleState(std::uint64_t state) {
  const auto now = Waker::now();
  const bool begins = phase_ == Phase::Waiting || (phase_ == Phase::Streaming && now - phaseStart_ <= encoderPatience);
  if (begins && (state == ZelLiveSessionStateNoAudio || state == ZelLiveSessionStateNoVideo)) {
    return;  // The source waits for the connection, whose trouble is told.
  }
  state_ = state;
  std::optional<Waker::Duration> outage;
  if (state == ZelStreamSocketStatusReconnecting) {
    troubles_.attemptBegins();
  } else if (state == ZelStreamSocketStatusConnected) {
    outage = troubles_.connected(now);
  }
  output_->stateChanged(state, status(now));
  if (outage) {
    output_->recovered(*outage, status(now));
  }
  if (state == ZelStreamSocketStatusConnected && phase_ == Phase::Waiting) {
    phase_ = Phase::Streaming;
    phaseStart_ = now;
    programme_.begin(now);
  } else if (state == ZelStreamSocketStatusError && troubles_.hasFailed()) {
    output_->trouble(troubles_.givenUp());
    exitStatus_ = 1;
    phase_ = Phase::Ended;
  } else if (state == ZelLiveSessionStateNoVideo && phase_ == Phase::Streaming) {
    const auto reason = log_->lastError();
    fail(state, "no picture could be encoded" + (reason.empty() ? "" : ": " + reason));
  }
}

void Publisher::fail(std::uint64_t code, const std::string& reason) {
  output_->error(code, reason);
  exitStatus_ = 1;
  phase_ = Phase::Ended;
}

void Publisher::step(Waker::Duration now) {
  if (phase_ == Phase::Streaming && !programme_.step(now)) {
    endOfProgramme(now);
  } else if (phase_ == Phase::Draining && drained(now)) {
    phase_ = Phase::Ended;
    if (troubles_.isDown()) {
      fail(0, "the end was not published: there was no connection");
    }
  }
}

void Publisher::endOfProgramme(Waker::Duration now) {
  if (const auto failure = programme_.failure(); !failure.empty()) {
    fail(0, failure);
  } else {
    phase_ = Phase::Draining;
    phaseStart_ = now;
  }
}

void Publisher::followSignals() {
  if (const auto suspended = waker_->takeSuspension()) {
    appState_->setSuspended(*suspended == Waker::Suspension::Toggle && !appState_->suspended());
  }
}

/// A stream opens with its first picture and its first sound, so a device that delivers nothing holds it up.
void Publisher::sayWhatIsMissing(Waker::Duration now) {
  if (phase_ == Phase::Streaming && !saidWhatIsMissing_ && now - phaseStart_ > devicePatience) {
    saidWhatIsMissing_ = true;
    if (const auto missing = programme_.whatIsMissing(); !missing.empty() && !meter_.hasReport()) {
      output_->device(DeviceNews::Trouble, missing);
    }
  }
}

bool Publisher::drained(Waker::Duration now) const {
  const auto time = now - phaseStart_;
  return time >= drainLimit || (time >= drainMinimum && bufferCount_ < 10);
}

void Publisher::showStatus(Waker::Duration now) {
  if (now >= nextStatus_) {
    output_->status(status(now));
    nextStatus_ = std::max(nextStatus_ + statusInterval, now);
  }
}

Waker::Duration Publisher::wakeTime(Waker::Duration now) {
  switch (phase_) {
    case Phase::Streaming:
      return std::min(nextStatus_, programme_.nextStep(now));
    case Phase::Draining:
      return std::min<Waker::Duration>(nextStatus_, now + 50ms);
    default:
      return nextStatus_;
  }
}

StreamStatus Publisher::status(Waker::Duration now) const {
  StreamStatus status;
  status.state = troubles_.isWaiting() && state_ != ZelStreamSocketStatusError ? "waiting" : stateName(state_);
  status.elapsed = now - startTime_;
  meter_.read(status, now);
  if (troubles_.isDown() && meter_.hasRates()) {
    status.bitsPerSecond = 0;
    status.framesPerSecond = 0;
  }
  status.queued = static_cast<std::int64_t>(bufferCount_);
  status.dropped +=
      programme_.skipped() + static_cast<std::int64_t>(session_ ? session_->droppedPictures() : droppedBySession_);
  status.encoderBitRate = session_ ? session_->videoBitRate() : 0;
  return status;
}

}  // namespace zellive::tool
