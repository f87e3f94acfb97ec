#include "zellive/transport/ZelStreamRtmpSocket.h"

#include <algorithm>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveStreamInfo.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"
#include "zellive/transport/LibrtmpScope.h"
#include "zellive/transport/RtmpUrl.h"

namespace zellive {
namespace {

constexpr std::int64_t kDefaultReconnectInterval = 5;
constexpr std::int64_t kDefaultReconnectCount = 3;
/// How long a send may go on after stop() before it is cut off.
constexpr std::chrono::seconds kStopGrace{1};

/// The kernel's buffer holds about half a second of the stream.
std::uint32_t sendBufferBytes(const ZelLiveStreamInfo& stream) {
  constexpr std::uint64_t least = 64ULL * 1024;
  constexpr std::uint64_t most = 512ULL * 1024;
  const std::uint64_t video = stream.videoConfiguration ? stream.videoConfiguration->videoBitRate() : 0;
  const std::uint64_t audio = stream.audioConfiguration ? stream.audioConfiguration->audioBitRate() : 0;
  return static_cast<std::uint32_t>(std::clamp(video / 16 + audio / 16, least, most));
}

}  // namespace

std::shared_ptr<ZelStreamRtmpSocket> ZelStreamRtmpSocket::create(std::shared_ptr<ZelLiveStreamInfo> stream,
                                                                 std::int64_t reconnectInterval,
                                                                 std::int64_t reconnectCount,
                                                                 std::shared_ptr<const Platform> platform,
                                                                 RtmpConnectionFactory makeConnection) {
  if (!stream) {
    throw ZelException("ZelStreamRtmpSocket init error", "stream is nil");
  }
  std::shared_ptr<ZelStreamRtmpSocket> socket(
      new ZelStreamRtmpSocket(std::move(stream), reconnectInterval, reconnectCount, std::move(platform),
                              makeConnection ? std::move(makeConnection) : makeLibrtmpConnection));
  socket->buffer_->setDelegate(socket);
  socket->reachabilityObservation_ = socket->platform_->notifications->addObserver(
      notification::ReachabilityDidChange, [weak = std::weak_ptr(socket)](const UserInfo&) {
        if (const auto self = weak.lock()) {
          self->networkChanged();
        }
      });
  // The owner's pointer is apart from those that running tasks hold, so that its end can cut a blocked task short.
  ZelStreamRtmpSocket* const raw = socket.get();
  return {raw, [inner = std::move(socket)](ZelStreamRtmpSocket*) mutable {
            inner->abandon();
            inner.reset();
          }};
}

ZelStreamRtmpSocket::ZelStreamRtmpSocket(std::shared_ptr<ZelLiveStreamInfo> stream, std::int64_t reconnectInterval,
                                         std::int64_t reconnectCount, std::shared_ptr<const Platform> platform,
                                         RtmpConnectionFactory makeConnection)
    : stream_(std::move(stream)),
      reconnectInterval_(reconnectInterval > 0 ? reconnectInterval : kDefaultReconnectInterval),
      reconnectCount_(reconnectCount > 0 ? reconnectCount : kDefaultReconnectCount),
      platform_(std::move(platform)),
      makeConnection_(std::move(makeConnection)),
      hostReachability_(platform_->reachability->forHost(hostOf(stream_->url()))),
      reachability_(hostReachability_ ? hostReachability_ : platform_->reachability),
      networkState_(reachability_),
      rtmpSendQueue_(platform_->queues->makeSerialQueue("com.morrowfen.rtmpSendQueue")),
      buffer_(ZelStreamingBuffer::create(stream_->audioConfiguration, stream_->videoConfiguration, platform_)) {}

ZelStreamRtmpSocket::~ZelStreamRtmpSocket() {
  ZEL_LOG_INFO("Live: dealloc %s", describeObject("ZelStreamRtmpSocket", this).c_str());
  if (rtmp_) {
    // Closing may take a moment, and belongs on the queue, which lives until then.
    rtmpSendQueue_->async([queue = rtmpSendQueue_, link = std::move(rtmp_)] {
      RTMPError none;
      link->connection->close(&none);
    });
  }
}

void ZelStreamRtmpSocket::setLogLevel(int level) { setLibrtmpLogLevel(level); }
int ZelStreamRtmpSocket::logLevel() { return librtmpLogLevel(); }

void ZelStreamRtmpSocket::setDelegate(std::weak_ptr<ZelStreamSocketDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_.swap(delegate);
}

std::shared_ptr<ZelStreamSocketDelegate> ZelStreamRtmpSocket::delegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void ZelStreamRtmpSocket::reportStatus(std::uint64_t status) {
  if (const auto target = delegate()) {
    target->socketStatus(*this, status);
  }
}

void ZelStreamRtmpSocket::reportError(std::uint64_t code) {
  if (const auto target = delegate()) {
    target->socketDidErrorCode(*this, code);
  }
}

void ZelStreamRtmpSocket::streamingBufferState(ZelStreamingBuffer& /*buffer*/, ZelStreamingBufferState state) {
  if (const auto target = delegate()) {
    target->socketBufferStatus(*this, state);
  }
}

void ZelStreamRtmpSocket::streamingBufferCount(ZelStreamingBuffer& /*buffer*/, std::uint64_t count) {
  if (const auto target = delegate()) {
    target->socketBufferStatusBufferCount(*this, count);
  }
}

void ZelStreamRtmpSocket::updateStreamInfo(const std::shared_ptr<const ZelLiveStreamInfo>& info) {
  if (info) {
    ZEL_LOG_INFO("Live: update stream info");
    stream_->setUrl(info->url());
  }
}

void ZelStreamRtmpSocket::start() {
  rtmpSendQueue_->async([weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->_start();
    }
  });
}

void ZelStreamRtmpSocket::_start() {
  if (isConnecting_ || rtmp_ || isStoped_) {
    return;
  }
  started_ = true;
  debugInfo_.roomID = stream_->roomId.value_or("");
  debugInfo_.streamID = stream_->streamId;
  debugInfo_.uploadUrl = stream_->url();
  debugInfo_.isRtmp = true;
  debugInfo_.startDate = platform_->clock->date();
  isConnecting_ = true;
  reportStatus(ZelStreamSocketStatusConnecting);
  RTMP264_Connect(stream_->url());
}

int ZelStreamRtmpSocket::RTMP264_Connect(const std::string& url) {
  if (hostReachability_) {
    hostReachability_->setHost(hostOf(url));
  }
  installConnection();
  error_ = {};
  if (const char* failed = connectSteps(*rtmp_->connection, url); failed != nullptr) {
    ZEL_LOG(failureLevel(), "Live: %s() failed", failed);
    releaseConnection(std::exchange(error_, {}));  // Whose error asks for the next attempt.
    return -1;
  }
  {
    const std::lock_guard lock(mutex_);
    attempting_ = false;
  }
  reportStatus(ZelStreamSocketStatusConnected);
  sendMetaData();
  isConnected_ = rtmp_->connection->isConnected();  // It may have broken again, which has been reported by then.
  isSending_ = false;
  isConnecting_ = false;
  isReconnecting_ = false;
  retryTimes4NetWorkBreaken_ = 0;
  sendFrame();
  return 0;
}

void ZelStreamRtmpSocket::installConnection() {
  RtmpOptions options;
  options.sendBufferBytes = sendBufferBytes(*stream_);
  auto link = std::make_shared<Link>();
  link->socket = weak_from_this();
  link->connection = makeConnection_(options, platform_, rtmpSendQueue_);
  const std::lock_guard lock(mutex_);
  rtmp_ = std::move(link);
  attempting_ = true;
  if (stopRequested_) {
    rtmp_->connection->abort();
  }
}

/// The library call that failed; null when the stream is open.
const char* ZelStreamRtmpSocket::connectSteps(RtmpConnection& connection, const std::string& url) {
  connection.setCallbacks({&RTMPErrorCallBack, &ConnectionTimeCallBack, rtmp_.get()});
  if (!connection.setupURL(url, &error_)) {
    return "RTMP_SetupURL";
  }
  connection.enableWrite();
  const bool connected = connection.connect(&error_);
  if (hostReachability_) {
    hostReachability_->setAddresses(connection.hostAddresses(), connected);
  }
  if (!connected) {
    return "RTMP_Connect";
  }
  return connection.connectStream(&error_) ? nullptr : "RTMP_ConnectStream";
}

/// Closes the connection, if there is one; `error` goes to the error callback.
void ZelStreamRtmpSocket::releaseConnection(RTMPError error) {
  if (!rtmp_) {
    return;
  }
  rtmp_->connection->close(&error);
  std::shared_ptr<Link> released;
  const std::lock_guard lock(mutex_);
  attempting_ = false;
  released.swap(rtmp_);
}

void ZelStreamRtmpSocket::RTMPErrorCallBack(const RTMPError& error, void* userData) {
  if (const auto self = static_cast<Link*>(userData)->socket.lock()) {
    self->rtmpError(error);
  }
}

void ZelStreamRtmpSocket::ConnectionTimeCallBack(const RTMPConnectionTime& time, void* /*userData*/) {
  ZEL_LOG_INFO("Live: RTMP connect %u , handshake %u", time.connect, time.handshake);
}

/// What fails because the stream is being stopped is no error.
LogLevel ZelStreamRtmpSocket::failureLevel() const { return stopRequested_ ? LogLevel::Information : LogLevel::Error; }

void ZelStreamRtmpSocket::rtmpError(const RTMPError& error) {
  if (error.code < 0) {
    isConnected_ = false;  // The steps posted already keep their frames.
    if (!isStoped_ && !reachability_->isReachable()) {
      ZEL_LOG_INFO("Live: no network, its return is waited for");
    }
    ZEL_LOG(failureLevel(), "Live: RTMP connect error %d message %s", error.code, error.message.c_str());
    reconnect();
  }
}

void ZelStreamRtmpSocket::stop() {
  requestStop();
  rtmpSendQueue_->async([self = shared_from_this()] { self->_stop(); });
}

/// The owner is gone: nobody is told any more, and what still runs ends soon. The destructor closes the connection.
void ZelStreamRtmpSocket::abandon() {
  requestStop();
  setDelegate({});
}

/// Sees to it that the send queue comes free.
void ZelStreamRtmpSocket::requestStop() {
  const std::lock_guard lock(mutex_);
  if (stopRequested_.exchange(true) || !rtmp_) {
    return;
  }
  if (attempting_) {
    rtmp_->connection->abort();
    return;
  }
  stopGuard_ = platform_->queues->globalQueue()->after(kStopGrace, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) {
      self->abortConnection();
    }
  });
}

void ZelStreamRtmpSocket::abortConnection() {
  const std::lock_guard lock(mutex_);
  if (rtmp_) {
    rtmp_->connection->abort();
  }
}

void ZelStreamRtmpSocket::_stop() {
  if (stopped_) {
    return;
  }
  isStoped_ = true;
  debugInfo_.stopDate = platform_->clock->date();
  reportStatus(ZelStreamSocketStatusStopped);
  releaseConnection({});
  if (reconnectDelay_) {
    reconnectDelay_->cancel();
  }
  clean();
  const std::lock_guard lock(mutex_);
  if (stopGuard_) {
    stopGuard_->cancel();
  }
  stopped_ = true;
  stoppedCondition_.notify_all();
}

void ZelStreamRtmpSocket::clean() {
  ZEL_LOG_INFO("Live: socket traffic: %s", debugInfo_.description().c_str());
  sendVideoHead_ = false;
  sendAudioHead_ = false;
  isSending_ = false;
  isConnected_ = false;
  isConnecting_ = false;
  isReconnecting_ = false;
  debugInfo_ = {};
  buffer_->removeAllObject();
  retryTimes4NetWorkBreaken_ = 0;
}

bool ZelStreamRtmpSocket::waitUntilStopped(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return stoppedCondition_.wait_for(lock, limit, [this] { return stopped_; });
}

}  // namespace zellive
