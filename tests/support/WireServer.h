#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Sockets.h"

namespace zellive::test {

/// One message as it came over the wire.
struct WireMessage {
  std::uint32_t chunkStream = 0;
  std::uint8_t headerType = 0;       ///< Of its first chunk: 0 to 3.
  std::uint32_t timestampField = 0;  ///< As written: absolute with header type 0, else the difference; 32 bits.
  bool extendedTimestamp = false;
  std::uint32_t timestamp = 0;  ///< Absolute, modulo 2^32.
  std::uint8_t type = 0;
  std::uint32_t streamId = 0;
  std::uint32_t chunks = 0;
  std::vector<std::uint8_t> body;

  bool operator==(const WireMessage&) const = default;
  /// Its header.
  friend std::ostream& operator<<(std::ostream& out, const WireMessage& m) {
    return out << "chunk stream " << m.chunkStream << ", header type " << int{m.headerType} << ", field "
               << m.timestampField << (m.extendedTimestamp ? " extended" : "") << ", time " << m.timestamp << ", type "
               << int{m.type} << ", stream " << m.streamId << ", " << m.chunks << " chunks, " << m.body.size() << " B";
  }
};

/// What the server does instead of serving, to find out how a client bears it.
enum class WireFault {
  None,
  Silent,              ///< Accepts and never says a word.
  Garbage,             ///< Answers the handshake with noise.
  ResetAfterConnect,   ///< Answers connect and resets the connection in the same breath.
  CloseAfterConnect,   ///< Closes when the client asks for a stream.
  SilentAfterConnect,  ///< Answers connect, then nothing more.
  RefuseConnect,       ///< NetConnection.Connect.Rejected.
  RefusePublish,       ///< NetStream.Publish.BadName.
  StopReading,         ///< Stops reading after three media messages.
};

/// A small RTMP server on a free loopback port which takes published streams apart chunk by chunk (Adobe RTMP
/// 1.0, chapter 5), each connection on a thread of its own.
class WireServer {
 public:
  /// With a receive buffer of that many bytes; 0: the system's. Throws std::runtime_error where there is no IPv6.
  explicit WireServer(WireFault fault = WireFault::None, int receiveBuffer = 0, int family = AF_INET);
  ~WireServer();
  WireServer(const WireServer&) = delete;
  WireServer& operator=(const WireServer&) = delete;

  [[nodiscard]] std::uint16_t port() const { return listener_.port(); }
  /// "rtmp://127.0.0.1:PORT/live/NAME"
  [[nodiscard]] std::string url(const std::string& name = "stream") const;

  /// Every message of every connection so far, commands and control included.
  [[nodiscard]] std::vector<WireMessage> messages() const;
  /// Audio (8), video (9) and data (18) messages only.
  [[nodiscard]] std::vector<WireMessage> media() const;
  /// Names of the commands that came: "connect", "publish", "deleteStream" …
  [[nodiscard]] std::vector<std::string> commands() const;
  [[nodiscard]] std::size_t connections() const { return accepted_; }
  /// Whether the client's bytes could always be parsed.
  [[nodiscard]] bool wellFormed() const { return wellFormed_; }
  /// Waits until the predicate holds; looked at after each message, connection and close. False after `limit`.
  bool waitUntil(const std::function<bool()>& holds, std::chrono::milliseconds limit = std::chrono::seconds(10));
  bool waitForMedia(std::size_t count);
  /// Connections that have ended, by whomever.
  [[nodiscard]] std::size_t closed() const { return closed_; }

  /// Sends these bytes as they are on every open connection.
  void inject(const std::vector<std::uint8_t>& bytes);
  /// Cuts every open connection.
  void cut();

 private:
  struct Client;
  void acceptLoop();
  void serve(Client& client);

  const LoopbackListener listener_;
  const std::string host_;
  const WireFault fault_;
  std::thread acceptor_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::list<Client> clients_;
  std::vector<WireMessage> messages_;
  std::atomic<std::size_t> accepted_{0};
  std::atomic<std::size_t> closed_{0};
  std::atomic<bool> wellFormed_{true};
};

}  // namespace zellive::test
