#include "zellive/capture/ZelLiveAudioCapture.h"

#include <algorithm>
#include <string>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/platform/PcmFormat.h"

namespace zellive {
namespace {

constexpr std::int64_t kInterruptionBegan = 1;
constexpr std::int64_t kInterruptionEnded = 0;

/// 0 where the notification does not say.
std::int64_t valueOf(const UserInfo& userInfo, const char* key) {
  const auto found = userInfo.find(key);
  return found == userInfo.end() ? 0 : found->second;
}

const char* routeChangeText(std::int64_t reason) {
  switch (reason) {
    case 1:
      return "A preferred new audio output path is now available.";
    case 2:
      return "The previous audio output path is no longer available.";
    case 3:
      return "The category of the session object changed.";
    case 4:
      return "The output route was overridden by the app.";
    case 6:
      return "The route changed when the device woke up from sleep.";
    case 7:
      return "The route changed because no suitable route is now available for the specified category.";
    default:
      return "The reason for the change is unknown.";
  }
}

}  // namespace

std::shared_ptr<ZelLiveAudioCapture> ZelLiveAudioCapture::create(Configuration configuration,
                                                                 std::shared_ptr<const Platform> platform) {
  if (!configuration) {
    return nullptr;
  }
  auto capture = std::shared_ptr<ZelLiveAudioCapture>(
      new ZelLiveAudioCapture(std::move(configuration), platform ? std::move(platform) : defaultPlatform()));
  capture->setUp();
  return capture;
}

ZelLiveAudioCapture::ZelLiveAudioCapture(Configuration configuration, std::shared_ptr<const Platform> platform)
    : configuration_(std::move(configuration)),
      platform_(std::move(platform)),
      taskQueue_(platform_->queues->makeSerialQueue("com.morrowfen.audioCapture.queue")) {}

void ZelLiveAudioCapture::setUp() {
  const auto observe = [this](const char* name, auto handler) {
    observations_.push_back(
        platform_->notifications->addObserver(name, [weak = weak_from_this(), handler](const UserInfo& userInfo) {
          if (auto self = weak.lock()) {
            handler(*self, userInfo);
          }
        }));
  };
  observe(notification::AudioRouteChange,
          [](ZelLiveAudioCapture& self, const UserInfo& userInfo) { self.handleRouteChange(userInfo); });
  observe(notification::AudioInterruption, [](ZelLiveAudioCapture& self, const UserInfo& userInfo) {
    self.handleInterruption(notification::AudioInterruption, userInfo);
  });

  int status = 0;
  componentInstance_ = component()->makeUnit(
      sixteenBitPcm(static_cast<double>(configuration_->audioSampleRate()),
                    static_cast<std::uint32_t>(configuration_->numberOfChannels())),
      [weak = weak_from_this()](int renderStatus, std::span<std::uint8_t> block) {
        if (const auto self = weak.lock()) {
          self->receive(renderStatus, block);
        }
      },
      status);
  if (!componentInstance_) {
    ZEL_LOG_ERROR("Live: there is no microphone to take sound from (%d); the stream has no sound from it", status);
    handleAudioComponentCreationFailure();
  }
}

ZelLiveAudioCapture::~ZelLiveAudioCapture() {
  observations_.clear();
  isRunning_ = false;
  if (componentInstance_) {
    componentInstance_->stop();
    componentInstance_.reset();
  }
}

// ---- Start and stop

void ZelLiveAudioCapture::setRunning(bool running) {
  const std::lock_guard inOrder(runningLock_);
  if (running_.exchange(running) != running) {
    onTaskQueue(running ? &ZelLiveAudioCapture::start : &ZelLiveAudioCapture::stop);
  }
}

void ZelLiveAudioCapture::onTaskQueue(void (ZelLiveAudioCapture::*job)()) {
  taskQueue_->async([weak = weak_from_this(), job] {
    if (const auto self = weak.lock()) {
      (self.get()->*job)();
    }
  });
}

void ZelLiveAudioCapture::start() {
  isRunning_ = true;
  ZEL_LOG_INFO("Live: MicrophoneSource startRunning");
  const int status = componentInstance_ ? componentInstance_->start() : 0;
  if (status != 0) {
    ZEL_LOG_ERROR("Live: the microphone does not start (%d)", status);
  }
}

void ZelLiveAudioCapture::stop() {
  isRunning_ = false;
  ZEL_LOG_INFO("Live: MicrophoneSource stopRunning");
  if (componentInstance_) {
    componentInstance_->stop();
  }
}

void ZelLiveAudioCapture::stopInterrupted() {
  ZEL_LOG_INFO("Live: Interruption, Microphone stopRunning");
  if (componentInstance_) {
    componentInstance_->stop();
  }
}

// ---- Notifications

void ZelLiveAudioCapture::handleRouteChange(const UserInfo& userInfo) {
  ZEL_LOG_WARNING("Live: handleRouteChange reason is %s",
                  routeChangeText(valueOf(userInfo, kAudioRouteChangeReasonKey)));
}

void ZelLiveAudioCapture::handleInterruption(std::string_view name, const UserInfo& userInfo) {
  const char* reason = "";
  if (name == notification::AudioInterruption) {
    const auto type = valueOf(userInfo, kAudioInterruptionTypeKey);
    if (type == kInterruptionBegan && isRunning_) {
      onTaskQueue(&ZelLiveAudioCapture::stopInterrupted);
    } else if (type == kInterruptionEnded) {
      // Nothing starts here: whether capture goes on is for its owner to say.
      reason = "AVAudioSessionInterruptionTypeEnded";
    }
  }
  ZEL_LOG_ERROR("Live: handleInterruption: %s reason %s", std::string(name).c_str(), reason);
}

// ---- Blocks

void ZelLiveAudioCapture::receive(int status, std::span<std::uint8_t> block) {
  if (muted_) {
    std::ranges::fill(block, std::uint8_t{0});
  }
  if (status != 0) {
    return;
  }
  if (const auto delegate = currentDelegate()) {
    delegate->audioCaptureOutputAudioData(this, block);
  }
}

std::shared_ptr<ZelLiveAudioCaptureDelegate> ZelLiveAudioCapture::currentDelegate() const {
  ++delegateReaders_;
  const auto* const current = delegate_.load();
  auto delegate = current != nullptr ? current->lock() : nullptr;
  --delegateReaders_;
  return delegate;
}

std::shared_ptr<ZelLiveAudioCaptureDelegate> ZelLiveAudioCapture::delegate() const { return currentDelegate(); }

void ZelLiveAudioCapture::setDelegate(std::weak_ptr<ZelLiveAudioCaptureDelegate> delegate) {
  const std::lock_guard lock(delegatesLock_);
  delegates_.push_back(std::make_unique<const Delegate>(std::move(delegate)));
  delegate_ = delegates_.back().get();
  if (delegateReaders_ == 0) {  // Whoever reads from now on finds the new one.
    delegates_.erase(delegates_.begin(), delegates_.end() - 1);
  }
}

}  // namespace zellive
