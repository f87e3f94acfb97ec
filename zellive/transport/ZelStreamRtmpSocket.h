#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "zellive/platform/Exception.h"
#include "zellive/platform/Log.h"
#include "zellive/platform/Platform.h"
#include "zellive/session/ZelFrame.h"
#include "zellive/session/ZelLiveDebug.h"
#include "zellive/transport/FlvTagBody.h"
#include "zellive/transport/RtmpConnection.h"
#include "zellive/transport/ZelStreamingBuffer.h"

namespace zellive {

class ZelLiveStreamInfo;
class ZelStreamRtmpSocket;

enum ZelStreamSocketStatus : std::uint64_t {
  ZelStreamSocketStatusConnecting = 1,    ///< The first attempt to connect begins.
  ZelStreamSocketStatusConnected = 2,     ///< The server takes the stream.
  ZelStreamSocketStatusStopped = 3,       ///< stop() took effect; final.
  ZelStreamSocketStatusError = 4,         ///< As many attempts failed as were allowed; further ones follow.
  ZelStreamSocketStatusReconnecting = 5,  ///< A later attempt to connect begins.
};

enum ZelStreamSocketError : std::uint64_t {
  ZelStreamSocketErrorNetworkUnreachable = 203,  ///< The network became unreachable.
  ZelStreamSocketErrorReconnectExhausted = 205,  ///< Comes with ZelStreamSocketStatusError.
};

/// Told about a publisher's fortunes. Calls arrive on the publisher's send queue, those about the buffer on the main
/// queue, error 203 on the thread that posts the change of the network; none may block.
class ZelStreamSocketDelegate {
 public:
  virtual ~ZelStreamSocketDelegate() = default;
  /// A ZelStreamSocketStatus.
  virtual void socketStatus(ZelStreamRtmpSocket& /*socket*/, std::uint64_t /*status*/) {}
  /// A ZelStreamSocketError.
  virtual void socketDidErrorCode(ZelStreamRtmpSocket& /*socket*/, std::uint64_t /*code*/) {}
  /// Statistics, at most once a second and only while frames are sent. `info` is the callee's to copy.
  virtual void socketDebugInfo(ZelStreamRtmpSocket& /*socket*/, const ZelLiveDebug& /*info*/) {}
  virtual void socketBufferStatus(ZelStreamRtmpSocket& /*socket*/, ZelStreamingBufferState /*status*/) {}
  /// Frames waiting to be sent.
  virtual void socketBufferStatusBufferCount(ZelStreamRtmpSocket& /*socket*/, std::uint64_t /*count*/) {}
  /// Asks for a fresh push URL, to be handed over with updateStreamInfo, at once or later.
  virtual void socketRequestNewUrl(ZelStreamRtmpSocket& /*socket*/) {}
};

/// Publishes one live stream to an RTMP server.
///
/// Created → start → connecting → connected → stop → stopped, which is final. A lost connection, a failed attempt and
/// any change that leaves the network reachable lead to another attempt after the reconnect interval, for as long as it
/// takes. Every connection begins with the stream's description; its first video and its first audio frame are spent on
/// the AVC and AAC sequence headers.
///
/// All operations are thread-safe and return at once, waitUntilStopped aside. Connecting and sending happen on a serial
/// queue of the publisher's own. Ownership: whoever holds the pointer that create() returned owns the publisher;
/// letting go of it ends the stream without a report, within two seconds, in the background.
class ZelStreamRtmpSocket : public ZelStreamingBufferDelegate,
                            public std::enable_shared_from_this<ZelStreamRtmpSocket> {
 public:
  /// `reconnectInterval` in seconds, `reconnectCount` the attempts after which an error is reported; a value below 1
  /// stands for 5 and 3. An empty `makeConnection` means librtmp. Throws ZelException where `stream` is null.
  [[nodiscard]] static std::shared_ptr<ZelStreamRtmpSocket> create(
      std::shared_ptr<ZelLiveStreamInfo> stream, std::int64_t reconnectInterval = 0, std::int64_t reconnectCount = 0,
      std::shared_ptr<const Platform> platform = defaultPlatform(), RtmpConnectionFactory makeConnection = {});
  ~ZelStreamRtmpSocket() override;
  ZelStreamRtmpSocket(const ZelStreamRtmpSocket&) = delete;
  ZelStreamRtmpSocket& operator=(const ZelStreamRtmpSocket&) = delete;

  void setDelegate(std::weak_ptr<ZelStreamSocketDelegate> delegate);
  [[nodiscard]] std::int64_t reconnectInterval() const noexcept { return reconnectInterval_; }
  [[nodiscard]] std::int64_t reconnectCount() const noexcept { return reconnectCount_; }

  /// Connects, also ahead of an attempt that is planned. Does nothing while a connection exists (a broken one does
  /// until the next attempt) or is being set up, and on a publisher that was stopped.
  void start();
  /// Closes the connection and drops what is queued; ZelStreamSocketStatusStopped is reported. An attempt to connect is
  /// given up at once, a send that hangs after a second.
  void stop();
  /// Queues a frame; null is ignored.
  void sendFrame(std::shared_ptr<const ZelFrame> frame);
  /// Takes the URL over for the next attempt to connect; null is ignored.
  void updateStreamInfo(const std::shared_ptr<const ZelLiveStreamInfo>& info);
  /// True once stop() has closed the connection, for an application that is about to end its process; false when that
  /// takes longer than `limit`. Blocks: not for the main queue or a delegate method.
  [[nodiscard]] bool waitUntilStopped(std::chrono::milliseconds limit);

  /// librtmp's log level for the whole process: 0 (critical) to 6 (all); a level above that counts as 1 (errors).
  static void setLogLevel(int level);
  [[nodiscard]] static int logLevel();

  void streamingBufferState(ZelStreamingBuffer& buffer, ZelStreamingBufferState state) override;
  void streamingBufferCount(ZelStreamingBuffer& buffer, std::uint64_t count) override;

 private:
  /// A connection and, for its callbacks, the way back; the publisher may be gone while the connection still closes.
  struct Link {
    std::weak_ptr<ZelStreamRtmpSocket> socket;
    std::unique_ptr<RtmpConnection> connection;
  };

  ZelStreamRtmpSocket(std::shared_ptr<ZelLiveStreamInfo> stream, std::int64_t reconnectInterval,
                      std::int64_t reconnectCount, std::shared_ptr<const Platform> platform,
                      RtmpConnectionFactory makeConnection);

  void abandon();
  void requestStop();
  void abortConnection();

  // Connecting and stopping, on the send queue.
  void _start();
  void _stop();
  int RTMP264_Connect(const std::string& url);
  const char* connectSteps(RtmpConnection& connection, const std::string& url);
  void installConnection();
  void releaseConnection(RTMPError error);
  void clean();
  void rtmpError(const RTMPError& error);
  [[nodiscard]] LogLevel failureLevel() const;
  static void RTMPErrorCallBack(const RTMPError& error, void* userData);
  static void ConnectionTimeCallBack(const RTMPConnectionTime& time, void* userData);

  // Reconnection.
  void reconnect();
  void scheduleReconnect();
  void _reconnect();
  void networkChanged();
  void reachabilityChange();

  // Sending, on the send queue.
  void sendFrame();
  void sendStep();
  bool sendFrameOrHeader(const ZelFrame& frame);
  bool sendVideoHeader(const ZelLiveVideoFrame& frame);
  bool sendAudioHeader(const ZelFrame& frame);
  void sendMetaData();
  std::int32_t sendPacket(std::uint8_t type, std::uint64_t nTimestamp);
  std::int32_t RtmpPacketSend(const RtmpMessage& message);
  void countSent(const ZelFrame& frame);

  void reportStatus(std::uint64_t status);
  void reportError(std::uint64_t code);
  [[nodiscard]] std::shared_ptr<ZelStreamSocketDelegate> delegate() const;

  const std::shared_ptr<ZelLiveStreamInfo> stream_;
  const std::int64_t reconnectInterval_;  // Seconds.
  const std::int64_t reconnectCount_;
  const std::shared_ptr<const Platform> platform_;
  const RtmpConnectionFactory makeConnection_;
  const std::shared_ptr<HostReachability> hostReachability_;  // Null: the platform's answer holds for every host.
  const std::shared_ptr<AFNetworkReachabilityManager> reachability_;
  const QMZNetworkState networkState_;
  const std::shared_ptr<Queue> rtmpSendQueue_;
  std::shared_ptr<ZelStreamingBuffer> buffer_;
  NotificationCenter::Observation reachabilityObservation_;

  std::atomic<bool> isSending_ = false;
  std::atomic<bool> isStoped_ = false;
  std::atomic<bool> started_ = false;
  std::atomic<bool> stopRequested_ = false;
  std::atomic<std::uint64_t> networkChanges_ = 0;

  // Of the send queue alone.
  bool isConnected_ = false;
  bool isConnecting_ = false;
  bool isReconnecting_ = false;
  bool sendVideoHead_ = false;
  bool sendAudioHead_ = false;
  std::int64_t retryTimes4NetWorkBreaken_ = 0;
  ZelLiveDebug debugInfo_;
  RTMPError error_;
  RtmpBody body_;
  std::shared_ptr<DelayedWork> reconnectDelay_;

  mutable std::mutex mutex_;
  std::weak_ptr<ZelStreamSocketDelegate> delegate_;
  std::shared_ptr<Link> rtmp_;  // Changed on the send queue only.
  bool attempting_ = false;     // The connection is being set up.
  std::shared_ptr<DelayedWork> stopGuard_;
  bool stopped_ = false;
  std::condition_variable stoppedCondition_;
};

}  // namespace zellive
