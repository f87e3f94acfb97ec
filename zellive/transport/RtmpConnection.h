#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "zellive/platform/Platform.h"

namespace zellive {

/// What went wrong with a connection. `code` is negative after a failure, 0 otherwise; `message` is for people and
/// holds no stream key.
struct RTMPError {
  std::int32_t code = 0;
  std::string message;
};

/// RTMPError codes.
enum RtmpFailure : std::int32_t {
  RtmpFailureUrl = -1,        ///< The URL cannot be used.
  RtmpFailureResolve = -2,    ///< The host's name has no address.
  RtmpFailureConnect = -3,    ///< No address of the host accepts a connection.
  RtmpFailureHandshake = -4,  ///< The server does not complete the handshake.
  RtmpFailureRefused = -5,    ///< The server refuses the application or the stream.
  RtmpFailureTimeout = -6,    ///< The server takes too long.
  RtmpFailureSend = -7,       ///< Sending failed, or the server has stopped reading.
  RtmpFailureClosed = -8,     ///< The server closed the connection.
  RtmpFailureProtocol = -9,   ///< The server sent what is not RTMP.
  RtmpFailureAborted = -10,   ///< abort() was called.
};

/// Durations of a successful connect, in milliseconds: the socket's, and the RTMP handshake's.
struct RTMPConnectionTime {
  std::uint32_t connect = 0;
  std::uint32_t handshake = 0;
};

using RTMPErrorCallBack = void (*)(const RTMPError& error, void* userData);
using ConnectionTimeCallBack = void (*)(const RTMPConnectionTime& time, void* userData);

/// Called by a connection, on the queue that it was made with or inside one of its operations. The user pointer must
/// outlive the connection.
struct RtmpCallbacks {
  RTMPErrorCallBack error = nullptr;
  ConnectionTimeCallBack connectionTime = nullptr;
  void* userData = nullptr;
};

/// Bytes that a message's body leaves free in front of it for the largest chunk header.
inline constexpr std::size_t kRtmpHeaderRoom = 18;

/// One RTMP message (Adobe RTMP 1.0, 5.3).
struct RtmpMessage {
  std::uint8_t headerType = 0;  ///< 0 full header, 1 without the stream id.
  std::uint8_t type = 0;
  std::int32_t channel = 0;  ///< Chunk stream id.
  std::uint32_t timestamp = 0;
  bool absoluteTimestamp = false;
  std::int32_t streamId = 0;
  /// Preceded by kRtmpHeaderRoom writable bytes. Sending overwrites that room, and bytes of a body that needs more than
  /// one chunk.
  std::span<std::uint8_t> body;
};

/// Limits of a connection.
struct RtmpOptions {
  std::chrono::milliseconds resolveLimit{5000};  ///< For the host's name.
  std::chrono::milliseconds connectLimit{5000};  ///< For the socket, shared between the host's addresses.
  std::chrono::milliseconds setupLimit{10000};   ///< For handshake, connect and publish together.
  std::chrono::seconds receiveLimit{2};          ///< For each wait for the server's answer.
  std::chrono::milliseconds sendLimit{10000};    ///< For a server that takes nothing.
  std::chrono::milliseconds closeLimit{500};     ///< For the last words to a server; after it, a reset.
  std::uint32_t sendBufferBytes = 128 * 1024;    ///< Of the kernel; keeps a slow network visible in our own queue.
  std::uint32_t chunkSize = 65536;               ///< Of what we send.
};

/// A publishing connection to an RTMP server: made for one attempt, used once, thrown away.
///
/// Every operation but abort() is called on one serial queue. Those that can fail fill `error` (never null) and return
/// false, or what is not 1. The error callback gets the error of a failure during sendPacket or between calls, when the
/// connection is closed already, and the record that is handed to close().
class RtmpConnection {
 public:
  virtual ~RtmpConnection() = default;

  virtual bool setupURL(const std::string& url, RTMPError* error) = 0;
  virtual void setCallbacks(const RtmpCallbacks& callbacks) = 0;
  /// Publish rather than play.
  virtual void enableWrite() = 0;
  /// Resolves, connects, shakes hands; tells the connection-time callback.
  virtual bool connect(RTMPError* error) = 0;
  /// The host's addresses as connect() found them, in numbers, the one that answered first. Empty where not known.
  [[nodiscard]] virtual std::vector<std::string> hostAddresses() const { return {}; }
  /// Opens the stream for publishing.
  virtual bool connectStream(RTMPError* error) = 0;
  [[nodiscard]] virtual bool isConnected() const = 0;
  /// The message stream that the server assigned; 0 before connectStream.
  [[nodiscard]] virtual std::int32_t streamId() const = 0;
  /// 1 when the message went to the kernel.
  virtual std::int32_t sendPacket(const RtmpMessage& message, RTMPError* error) = 0;
  /// Ends the connection, politely where it still works, and hands `error` to the error callback.
  virtual void close(RTMPError* error) = 0;
  /// Thread-safe: makes a call under way return at once with an error, and every later one fail.
  virtual void abort() = 0;
};

/// Makes a connection that lives on `queue`.
using RtmpConnectionFactory = std::function<std::unique_ptr<RtmpConnection>(
    const RtmpOptions& options, const std::shared_ptr<const Platform>& platform, const std::shared_ptr<Queue>& queue)>;

/// The form on librtmp.
[[nodiscard]] std::unique_ptr<RtmpConnection> makeLibrtmpConnection(const RtmpOptions& options,
                                                                    const std::shared_ptr<const Platform>& platform,
                                                                    const std::shared_ptr<Queue>& queue);

}  // namespace zellive
