#include "zellive/transport/LibrtmpInbox.h"

#include <librtmp/rtmp.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace zellive {
namespace {

// Servers send a publisher commands and control messages of some hundred bytes. Every chunk of such a message has room
// in librtmp's buffer, so that it can be gathered whole.
constexpr std::uint32_t kLargestMessage = 8 * 1024;
constexpr std::uint32_t kLargestHeader = 3 + 11 + 4;
static_assert(kLargestHeader + kLargestMessage < sizeof RTMPSockBuf::sb_buf);
constexpr std::uint32_t kExtended = 0xFFFFFF;

std::uint32_t number24(const std::uint8_t* bytes) {
  return static_cast<std::uint32_t>(bytes[0] << 16 | bytes[1] << 8 | bytes[2]);
}

std::string textOf(const AVal& value) {
  return value.av_val == nullptr || value.av_len < 0
             ? std::string()
             : std::string(value.av_val, static_cast<std::size_t>(value.av_len));
}

std::string textOf(AMFObjectProperty* property) {
  return property->p_type == AMF_STRING ? textOf(property->p_vu.p_aval) : std::string();
}

std::string textOf(AMFObject* object, const char* name) {
  AVal key{const_cast<char*>(name), static_cast<int>(std::strlen(name))};
  return textOf(AMF_GetProp(object, &key, -1));
}

/// Whether the answer `transaction` belongs to a command on which publishing depends. Servers may well refuse the
/// others, which announce the stream and exist for the sake of one product.
bool answersOurCommand(const RTMP& rtmp, double transaction) {
  return std::any_of(rtmp.m_methodCalls, rtmp.m_methodCalls + rtmp.m_numCalls, [&](const RTMP_METHOD& call) {
    const std::string name = textOf(call.name);
    return call.num == transaction && (name == "connect" || name == "createStream" || name == "publish");
  });
}

}  // namespace

LibrtmpInbox::Fill LibrtmpInbox::fill() {
  RTMPSockBuf& buffer = rtmp_.m_sb;
  if (buffer.sb_size > 0 && buffer.sb_start != buffer.sb_buf) {
    std::memmove(buffer.sb_buf, buffer.sb_start, static_cast<std::size_t>(buffer.sb_size));
    buffer.sb_start = buffer.sb_buf;
  }
  buffer.sb_timedout = FALSE;
  if (RTMPSockBuf_Fill(&buffer) > 0) {
    return Fill::Data;
  }
  return buffer.sb_timedout != FALSE ? Fill::Nothing : Fill::Closed;
}

LibrtmpInbox::Chunk LibrtmpInbox::look() const {
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(rtmp_.m_sb.sb_start);
  const auto size = static_cast<std::uint32_t>(rtmp_.m_sb.sb_size);
  if (size == 0) {
    return Chunk::Part;
  }
  constexpr std::array<std::uint32_t, 4> kHeaderSizes{11, 7, 3, 0};
  const unsigned format = bytes[0] >> 6;
  const unsigned shortChannel = bytes[0] & 0x3FU;
  const std::uint32_t basic = shortChannel == 0 ? 2 : shortChannel == 1 ? 3 : 1;
  std::uint32_t needed = basic + kHeaderSizes[format];
  if (size < needed) {
    return Chunk::Part;
  }
  const int channel = shortChannel == 0   ? bytes[1] + 64
                      : shortChannel == 1 ? bytes[2] * 256 + bytes[1] + 64
                                          : static_cast<int>(shortChannel);
  const RTMPPacket* former = channel < rtmp_.m_channelsAllocatedIn ? rtmp_.m_vecChannelsIn[channel] : nullptr;
  // A short header leans on a message before it, and one that begins a message must not cut another one short.
  if (former == nullptr ? format != 0 : format < 2 && former->m_body != nullptr) {
    return Chunk::Invalid;
  }
  const std::uint32_t timestamp = format < 3 ? number24(bytes + basic) : former->m_nTimeStamp;
  const std::uint32_t length = format < 2 ? number24(bytes + basic + 3) : former->m_nBodySize;
  const std::uint32_t present = format < 2 ? 0 : former->m_nBytesRead;
  if (length > kLargestMessage || rtmp_.m_inChunkSize < 1) {
    return Chunk::Invalid;
  }
  needed += timestamp == kExtended ? 4 : 0;
  needed += std::min(length - std::min(present, length), static_cast<std::uint32_t>(rtmp_.m_inChunkSize));
  return size >= needed ? Chunk::Whole : Chunk::Part;
}

bool LibrtmpInbox::read(RTMPPacket& packet) { return RTMP_ReadPacket(&rtmp_, &packet) != FALSE; }

std::optional<ServerStatus> readStatus(const RTMP& rtmp, const RTMPPacket& packet) {
  const bool flex = packet.m_packetType == RTMP_PACKET_TYPE_FLEX_MESSAGE;
  const std::uint32_t skip = flex ? 1 : 0;
  if ((packet.m_packetType != RTMP_PACKET_TYPE_INVOKE && !flex) || packet.m_nBodySize <= skip) {
    return std::nullopt;
  }
  AMFObject command{};
  std::optional<ServerStatus> status;
  if (AMF_Decode(&command, packet.m_body + skip, static_cast<int>(packet.m_nBodySize - skip), FALSE) >= 0) {
    const std::string method = textOf(AMF_GetProp(&command, nullptr, 0));
    AMFObjectProperty* detail = AMF_GetProp(&command, nullptr, 3);
    AMFObject none{};
    AMFObject* info = detail->p_type == AMF_OBJECT ? &detail->p_vu.p_object : &none;
    if (method == "onStatus" || method == "_error") {
      status = ServerStatus{textOf(info, "code"), textOf(info, "description"), false};
      AMFObjectProperty* transaction = AMF_GetProp(&command, nullptr, 1);
      // A server that cannot record may still relay.
      status->refuses = method == "onStatus"
                            ? textOf(info, "level") == "error" && !status->code.starts_with("NetStream.Record.")
                            : transaction->p_type == AMF_NUMBER && answersOurCommand(rtmp, transaction->p_vu.p_number);
    }
  }
  AMF_Reset(&command);
  return status;
}

}  // namespace zellive
