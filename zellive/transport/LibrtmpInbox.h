#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct RTMP;
struct RTMPPacket;

namespace zellive {

/// Reads what a server sends without ever waiting for the rest of a chunk: librtmp loses its place in the stream when
/// a read of its own is cut short. Bytes are gathered in librtmp's buffer, and librtmp is let at them when a whole
/// chunk lies there. It also refuses what librtmp's reader would not survive.
class LibrtmpInbox {
 public:
  enum class Fill { Data, Nothing, Closed };
  enum class Chunk { Whole, Part, Invalid };

  explicit LibrtmpInbox(RTMP& rtmp) : rtmp_(rtmp) {}

  /// Takes what the socket holds; call it when the socket is readable.
  Fill fill();
  /// What the gathered bytes begin with.
  [[nodiscard]] Chunk look() const;
  /// Reads the whole chunk that look() saw. `packet` (zeroed) is complete if the chunk ended its message, and then the
  /// caller's to free; false when the connection broke.
  bool read(RTMPPacket& packet);

 private:
  RTMP& rtmp_;
};

/// What a server says about a command or the stream.
struct ServerStatus {
  std::string code;
  std::string description;
  bool refuses = false;  ///< It ends an attempt to publish.
};

/// The status in a complete message; nothing where the message carries none.
[[nodiscard]] std::optional<ServerStatus> readStatus(const RTMP& rtmp, const RTMPPacket& packet);

}  // namespace zellive
