#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveStreamInfo.h"
#include "zellive/transport/ZelStreamRtmpSocket.h"

// How a broken publishing connection comes back.

namespace zellive {
namespace {

constexpr std::int64_t kAttemptsPerUrl = 100;

}  // namespace

/// Asks for another attempt, on any thread. While the network is out the request is dropped: its return asks anew.
void ZelStreamRtmpSocket::reconnect() {
  if (!reachability_->isReachable() || isStoped_ || !started_) {
    return;
  }
  rtmpSendQueue_->async([weak = weak_from_this()] {
    if (const auto self = weak.lock(); self && !self->isStoped_) {
      self->scheduleReconnect();
    }
  });
}

void ZelStreamRtmpSocket::scheduleReconnect() {
  if (retryTimes4NetWorkBreaken_ % kAttemptsPerUrl == 0) {
    if (const auto target = delegate()) {
      target->socketRequestNewUrl(*this);
    }
  }
  if (isReconnecting_) {
    return;
  }
  ++retryTimes4NetWorkBreaken_;
  isConnected_ = false;
  isConnecting_ = false;
  isReconnecting_ = true;
  reconnectDelay_ = rtmpSendQueue_->after(std::chrono::seconds(reconnectInterval_), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->_reconnect();
    }
  });
  if (retryTimes4NetWorkBreaken_ >= reconnectCount_) {
    debugInfo_.stopDate = platform_->clock->date();
    reportStatus(ZelStreamSocketStatusError);
    reportError(ZelStreamSocketErrorReconnectExhausted);
  }
}

void ZelStreamRtmpSocket::_reconnect() {
  if (isStoped_) {
    return;
  }
  ZEL_LOG_INFO("Live: Socket Reconnect %s", describeObject("ZelStreamRtmpSocket", this).c_str());
  isReconnecting_ = false;
  if (isConnected_) {
    return;
  }
  releaseConnection({});  // Its error, if any, was reported when it happened.
  sendVideoHead_ = false;
  sendAudioHead_ = false;
  reportStatus(ZelStreamSocketStatusReconnecting);
  RTMP264_Connect(stream_->url());
}

/// The notification may be about another publisher's host.
void ZelStreamRtmpSocket::networkChanged() {
  const std::uint64_t changes = hostReachability_ ? hostReachability_->changes() : 0;
  if (!hostReachability_ || networkChanges_.exchange(changes) != changes) {
    reachabilityChange();
  }
}

void ZelStreamRtmpSocket::reachabilityChange() {
  ZEL_LOG_INFO("Live: net reachabilityChange %ld", static_cast<long>(reachability_->networkReachabilityStatus()));
  if (reachability_->isReachable()) {
    reconnect();
  } else {
    reportError(ZelStreamSocketErrorNetworkUnreachable);
  }
}

}  // namespace zellive
