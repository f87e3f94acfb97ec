#include "zellive/transport/ServerMessageCheck.h"

#include <cstddef>

namespace zellive {
namespace {

enum MessageType : std::uint8_t {
  ChunkSize = 1,
  BytesRead = 3,
  UserControl = 4,
  WindowSize = 5,
  PeerBandwidth = 6,
  FlexCommand = 17,
  Command = 20,
};

enum Marker : std::uint8_t {
  Number = 0x00,
  Boolean = 0x01,
  String = 0x02,
  Object = 0x03,
  Null = 0x05,
  Undefined = 0x06,
  EcmaArray = 0x08,
  StrictArray = 0x0A,
  Date = 0x0B,
  LongString = 0x0C,
  Unsupported = 0x0D,
  XmlDocument = 0x0F,
};

constexpr int kDeepest = 16;
constexpr std::size_t kObjectEnd = 9;

/// Walks over AMF0 values without decoding them.
class AmfWalker {
 public:
  explicit AmfWalker(std::span<const std::uint8_t> bytes) : left_(bytes) {}

  /// Values up to the end, or up to an end of object, behind which librtmp reads nothing.
  bool values() {
    while (!left_.empty()) {
      if (endOfObject()) {
        return true;
      }
      if (!value(kDeepest)) {
        return false;
      }
    }
    return true;
  }

 private:
  bool value(int depth) {
    if (depth == 0 || left_.empty()) {
      return false;
    }
    const std::uint8_t marker = left_.front();
    left_ = left_.subspan(1);
    switch (marker) {
      case Number:
        return skip(8);
      case Boolean:
        return skip(1);
      case String:
        return skipCounted(2);
      case Object:
        return members(depth - 1);
      case Null:
      case Undefined:
      case Unsupported:
        return true;
      case EcmaArray:
        return skip(4) && members(depth - 1);
      case StrictArray:
        return elements(depth - 1);
      case Date:
        return skip(10);
      case LongString:
      case XmlDocument:
        return skipCounted(4);
      default:
        return false;
    }
  }

  /// Names and values up to the end mark, or to the end of the message: some servers leave the mark out.
  bool members(int depth) {
    while (!left_.empty()) {
      if (endOfObject()) {
        return skip(3);
      }
      // librtmp refuses a name and its value in fewer bytes, in which there is room for a value of none.
      if (left_.size() < 4 || !skipCounted(2) || !value(depth)) {
        return false;
      }
    }
    return true;
  }

  bool elements(int depth) {
    std::size_t count = 0;
    if (!number(4, count)) {
      return false;
    }
    while (count > 0 && value(depth)) {
      --count;
    }
    return count == 0;
  }

  [[nodiscard]] bool endOfObject() const {
    return left_.size() >= 3 && left_[0] == 0 && left_[1] == 0 && left_[2] == kObjectEnd;
  }
  bool skip(std::size_t count) {
    if (count > left_.size()) {
      return false;
    }
    left_ = left_.subspan(count);
    return true;
  }
  bool number(std::size_t size, std::size_t& value) {
    const auto bytes = left_;
    if (!skip(size)) {
      return false;
    }
    for (const std::uint8_t byte : bytes.first(size)) {
      value = value << 8 | byte;
    }
    return true;
  }
  /// Skips a length of that many bytes and what it counts.
  bool skipCounted(std::size_t size) {
    std::size_t count = 0;
    return number(size, count) && skip(count);
  }

  std::span<const std::uint8_t> left_;
};

}  // namespace

bool isSafeToDecode(std::uint8_t messageType, std::span<const std::uint8_t> body) {
  switch (messageType) {
    case ChunkSize:
    case BytesRead:
    case WindowSize:
    case PeerBandwidth:
      return body.size() >= 4;
    case UserControl:
      return body.size() >= 6;
    case FlexCommand:
      return body.size() > 1 && AmfWalker(body.subspan(1)).values();  // A byte of no meaning comes first.
    case Command:
      return AmfWalker(body).values();
    default:
      return true;
  }
}

}  // namespace zellive
