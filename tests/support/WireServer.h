#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Process.h"
#include "tests/support/Sockets.h"

namespace zellive::test {

/// One message as it came over the wire.
struct WireMessage {
  /// Chunk stream, header type of the first chunk, timestamp as it is written there ("x": extended) and what it comes
  /// to modulo 2^32, message stream, number of chunks: "4:1 +20 =50 s1 c1".
  std::string header;
  std::uint8_t type = 0;
  std::uint32_t timestamp = 0;
  std::vector<std::uint8_t> body;
  std::chrono::steady_clock::time_point arrival;

  [[nodiscard]] bool isMedia() const { return type == 8 || type == 9 || type == 18; }
  [[nodiscard]] bool isSequenceHeader() const { return (type == 8 || type == 9) && body.at(1) == 0; }
  /// The command that it is; empty when it is none.
  [[nodiscard]] std::string command() const;
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
  StopReading,         ///< Stops reading after three messages of sound and pictures.
};

/// A small RTMP server on a free loopback port which takes published streams apart chunk by chunk (Adobe RTMP
/// 1.0, chapter 5), each connection on a thread of its own.
class WireServer {
 public:
  /// Throws std::runtime_error where there is no such family.
  explicit WireServer(WireFault fault = WireFault::None, int family = AF_INET);
  ~WireServer();
  WireServer(const WireServer&) = delete;
  WireServer& operator=(const WireServer&) = delete;

  [[nodiscard]] std::uint16_t port() const { return listener_.port(); }
  /// "rtmp://127.0.0.1:PORT/live/NAME"
  [[nodiscard]] std::string url(const std::string& name = "stream") const;

  /// Every message of every connection so far, or those of sound, pictures and data only.
  [[nodiscard]] std::vector<WireMessage> messages(bool mediaOnly = false) const;
  [[nodiscard]] std::vector<WireMessage> media() const { return messages(true); }
  /// So far.
  [[nodiscard]] std::size_t connections() const { return accepted_; }
  /// Whether the client's bytes could always be parsed.
  [[nodiscard]] bool wellFormed() const { return wellFormed_; }
  bool waitForMedia(std::size_t count) {
    return waitUntil([&] { return media().size() >= count; }, std::chrono::seconds(30));
  }
  /// Waits until every connection has ended.
  bool waitForEnd() {
    return waitUntil([&] { return closed_ == accepted_; }, std::chrono::seconds(30));
  }

  /// Sends these bytes as they are on every open connection.
  void inject(const std::vector<std::uint8_t>& bytes);
  /// Cuts every open connection.
  void cut();

 private:
  struct Client;
  void serve(Client& client);

  const LoopbackListener listener_;
  const WireFault fault_;
  mutable std::mutex mutex_;
  std::list<Client> clients_;
  std::vector<WireMessage> messages_;
  std::atomic<std::size_t> accepted_{0};
  std::atomic<std::size_t> closed_{0};
  std::atomic<bool> wellFormed_{true};
  std::thread acceptor_;
};

}  // namespace zellive::test
