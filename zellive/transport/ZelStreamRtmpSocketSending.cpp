#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveStreamInfo.h"
#include "zellive/transport/RtmpMetadata.h"
#include "zellive/transport/ZelStreamRtmpSocket.h"

// The send loop: one frame a step, each step posting the next while frames are queued.

namespace zellive {
namespace {

constexpr std::uint8_t kAudioType = 0x08;
constexpr std::uint8_t kVideoType = 0x09;
constexpr std::uint8_t kDataType = 0x12;
constexpr std::int32_t kDataChannel = 3;
constexpr std::int32_t kMediaChannel = 4;
constexpr std::uint8_t kFullHeader = 0;
constexpr std::uint8_t kMediumHeader = 1;
constexpr std::size_t kAudioHeaderSize = 4;
constexpr double kStatisticsInterval = 1000.0;  // Milliseconds.
constexpr unsigned kUnreachableLogRate = 1000;

}  // namespace

void ZelStreamRtmpSocket::sendFrame(std::shared_ptr<const ZelFrame> frame) {
  if (!frame) {
    return;
  }
  buffer_->appendObject(std::move(frame));
  if (!networkState_.isReachable()) {
    if (sampled(kUnreachableLogRate)) {
      ZEL_LOG_INFO("Live: net is not reach, wait reconnect");
    }
  } else if (!isSending_) {
    sendFrame();
  }
}

void ZelStreamRtmpSocket::sendFrame() {
  if (isStoped_) {
    return;
  }
  rtmpSendQueue_->async([weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->sendStep();
    }
  });
}

void ZelStreamRtmpSocket::sendStep() {
  if (isSending_ || buffer_->count() == 0) {
    return;
  }
  isSending_ = true;
  if (!isConnected_ || isReconnecting_ || isConnecting_ || !rtmp_) {
    isSending_ = false;  // A successful connect takes the loop up again.
    return;
  }
  if (const auto frame = buffer_->popFirstObject(); frame && sendFrameOrHeader(*frame)) {
    countSent(*frame);
  }
  isSending_ = false;
  if (buffer_->count() > 0) {
    sendFrame();
  }
}

/// False for a frame that is not sent: the connection's header cannot be made of it, or players would not want it.
bool ZelStreamRtmpSocket::sendFrameOrHeader(const ZelFrame& frame) {
  if (frame.kind() == ZelFrameKind::Video) {
    const auto& video = static_cast<const ZelLiveVideoFrame&>(frame);
    if (!std::exchange(sendVideoHead_, true)) {
      return sendVideoHeader(video);
    }
    if (video.isSupplement()) {
      return false;  // It was there to be spent on the header; in a message of its own players complain of it.
    }
    packVideo(video, body_);
    sendPacket(kVideoType, frame.timestamp);
    return true;
  }
  if (!std::exchange(sendAudioHead_, true)) {
    return sendAudioHeader(frame);
  }
  packAudio(frame, body_);
  sendPacket(kAudioType, frame.timestamp);
  return true;
}

bool ZelStreamRtmpSocket::sendVideoHeader(const ZelLiveVideoFrame& frame) {
  if (!frame.sps || !frame.pps) {
    return false;
  }
  if (!canPackVideoHeader(frame)) {
    ZEL_LOG_ERROR("Live: parameter sets of %zu and %zu bytes cannot be sent", frame.sps.length(), frame.pps.length());
    return false;
  }
  packVideoHeader(frame, body_);
  sendPacket(kVideoType, 0);
  return true;
}

bool ZelStreamRtmpSocket::sendAudioHeader(const ZelFrame& frame) {
  if (frame.kind() != ZelFrameKind::Audio || !static_cast<const ZelLiveAudioFrame&>(frame).audioInfo) {
    return false;
  }
  packAudioHeader(static_cast<const ZelLiveAudioFrame&>(frame), body_);
  sendPacket(kAudioType, 0);
  return true;
}

void ZelStreamRtmpSocket::sendMetaData() {
  packMetaData(*stream_, body_);
  RtmpMessage message;
  message.headerType = kFullHeader;
  message.type = kDataType;
  message.channel = kDataChannel;
  message.absoluteTimestamp = true;
  message.streamId = rtmp_->connection->streamId();
  message.body = body_.bytes();
  RtmpPacketSend(message);
}

/// Sends the body under construction. The timestamp's lower 32 bits travel; it wraps after 49.7 days.
std::int32_t ZelStreamRtmpSocket::sendPacket(std::uint8_t type, std::uint64_t nTimestamp) {
  RtmpMessage message;
  message.body = body_.bytes();
  message.headerType = type == kAudioType && message.body.size() != kAudioHeaderSize ? kMediumHeader : kFullHeader;
  message.type = type;
  message.channel = kMediaChannel;
  message.timestamp = static_cast<std::uint32_t>(nTimestamp);
  message.streamId = rtmp_->connection->streamId();
  const std::int32_t result = RtmpPacketSend(message);
  if (result != 1) {
    ZEL_LOG(failureLevel(), "Live: send packet error: %ld", static_cast<long>(result));
  }
  return result;
}

std::int32_t ZelStreamRtmpSocket::RtmpPacketSend(const RtmpMessage& message) {
  return rtmp_->connection->isConnected() ? rtmp_->connection->sendPacket(message, &error_) : -1;
}

/// Counts a frame, whatever became of it on the way to the kernel.
void ZelStreamRtmpSocket::countSent(const ZelFrame& frame) {
  ZelLiveDebug& info = debugInfo_;
  const auto length = static_cast<double>(frame.data.length());
  const bool video = frame.kind() == ZelFrameKind::Video;
  info.totalFrame += 1;
  info.dropFrame += static_cast<std::int64_t>(buffer_->takeLastDropFrames());
  info.dataFlow += length;
  (video ? info.videoDataFlow : info.audioDataFlow) += length;
  (video ? info.captureVideoTotalCount : info.captureAudioTotalCount) += 1;
  const double now = platform_->clock->milliseconds();
  info.elapsedMilli = now - info.timestamp;
  if (info.elapsedMilli < kStatisticsInterval) {
    info.bandwidth += length;
    (video ? info.captureVideoCount : info.captureAudioCount) += 1;
    info.unSendCount = static_cast<std::int64_t>(buffer_->count());
    return;
  }
  info.currentBandwidth = info.bandwidth;
  info.currentCaptureAudioCount = info.captureAudioCount;
  info.currentCaptureVideoCount = info.captureVideoCount;
  if (const auto target = delegate()) {
    target->socketDebugInfo(*this, info);
  }
  info.bandwidth = 0;
  info.captureAudioCount = 0;
  info.captureVideoCount = 0;
  info.timestamp = platform_->clock->milliseconds();
}

}  // namespace zellive
