#include "zellive/transport/LibrtmpConnection.h"

#include <librtmp/rtmp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <functional>
#include <mutex>
#include <new>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/transport/ServerMessageCheck.h"
#include "zellive/transport/TcpDialer.h"

namespace zellive {
namespace {

static_assert(kRtmpHeaderRoom == RTMP_MAX_HEADER_SIZE);

// librtmp builds the commands that carry the stream's name in 1024 bytes.
constexpr int kLongestStreamName = 960;
constexpr std::size_t kLargestBody = 0xFFFFFF;
constexpr int kControlChannel = 2;
constexpr int kReadsAtOnce = 8;

RTMP* allocate() {
  // The first initialisation sets up TLS for the process, without a lock of its own.
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  RTMP* rtmp = RTMP_Alloc();
  if (rtmp == nullptr) {
    throw std::bad_alloc();
  }
  RTMP_Init(rtmp);
  return rtmp;
}

std::string inSeconds(std::chrono::milliseconds limit) { return std::to_string((limit.count() + 999) / 1000) + " s"; }

}  // namespace

LibrtmpConnection::LibrtmpConnection(const RtmpOptions& options, std::shared_ptr<const Platform> platform,
                                     std::shared_ptr<Queue> queue)
    : options_(options),
      platform_(std::move(platform)),
      queue_(std::move(queue)),
      rtmp_(allocate(), &RTMP_Free),
      inbox_(*rtmp_) {}

LibrtmpConnection::~LibrtmpConnection() {
  const LibrtmpScope scope(secrets_);
  shut(false);
}

bool LibrtmpConnection::setupURL(const std::string& url, RTMPError* error) {
  const LibrtmpScope scope(secrets_);
  if (const std::string wrong = parseRtmpUrl(url, url_); !wrong.empty()) {
    return fail(error, RtmpFailureUrl, wrong);
  }
  secrets_ = secretsOf(url, url_);
  if (RTMP_SetupURL(rtmp_.get(), url_.forLibrtmp.data()) == FALSE) {
    return fail(error, RtmpFailureUrl, "the URL cannot be parsed");
  }
  auto& link = rtmp_->Link;
  if (link.app.av_len <= 0 || link.playpath.av_len <= 0) {
    return fail(error, RtmpFailureUrl, "the URL names no application and stream, as in rtmp://host/application/stream");
  }
  // librtmp frees its own copy when a write fails, and goes on to name the stream in the next command.
  streamName_.assign(link.playpath.av_val, static_cast<std::size_t>(link.playpath.av_len));
  link.playpath.av_val = streamName_.data();
  secrets_.push_back(streamName_);
  if (link.playpath.av_len > kLongestStreamName) {
    return fail(error, RtmpFailureUrl,
                "the stream's name is longer than " + std::to_string(kLongestStreamName) + " characters");
  }
  tellRealHost(url);
  return true;
}

/// Where librtmp was given a name for an IPv6 address, the server is told the URL as it was.
void LibrtmpConnection::tellRealHost(const std::string& url) {
  const std::string& parsed = url_.forLibrtmp;
  auto& link = rtmp_->Link;
  const std::less<> before;  // Of pointers that may not be into the same text.
  if (url.compare(0, url_.path, parsed, 0, url_.librtmpPath) == 0 || (link.lFlags & RTMP_LF_FTCU) != 0 ||
      before(link.app.av_val, parsed.data()) || !before(link.app.av_val, parsed.data() + parsed.size())) {
    return;
  }
  const auto appEnd = static_cast<std::size_t>(link.app.av_val + link.app.av_len - parsed.data());
  tcUrl_ = url.substr(0, url_.path) + parsed.substr(url_.librtmpPath, appEnd - url_.librtmpPath);
  link.tcUrl = {tcUrl_.data(), static_cast<int>(tcUrl_.size())};
}

void LibrtmpConnection::enableWrite() {
  rtmp_->m_msgCounter = 1;
  rtmp_->Link.timeout = static_cast<int>(options_.receiveLimit.count());
  RTMP_EnableWrite(rtmp_.get());
}

bool LibrtmpConnection::isConnected() const { return RTMP_IsConnected(rtmp_.get()) != FALSE; }

bool LibrtmpConnection::fail(RTMPError* error, RtmpFailure code, const std::string& message) const {
  switch (switch_->state()) {
    case AbortSwitch::State::Aborted:
      *error = {RtmpFailureAborted, "the connection was given up"};
      break;
    case AbortSwitch::State::Expired:
      *error = {RtmpFailureTimeout, "the server did not take the stream within " + inSeconds(options_.setupLimit)};
      break;
    case AbortSwitch::State::Open:
      *error = {code, message};
      break;
  }
  return false;
}

bool LibrtmpConnection::connect(RTMPError* error) {
  const LibrtmpScope scope(secrets_);
  DialResult dialled = dialTcp(platform_->names, url_.host, url_.port, options_, *switch_);
  hostAddresses_ = std::move(dialled.addresses);
  if (dialled.socket < 0) {
    return fail(error, static_cast<RtmpFailure>(dialled.error.code), dialled.error.message);
  }
  if (!adopt(dialled.socket)) {
    return fail(error, RtmpFailureConnect, "too many files are open");
  }
  const auto start = Clock::now();
  if (!handshake(error)) {
    shut(false);
    return false;
  }
  const auto handshook = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
  if (callbacks_.connectionTime != nullptr) {
    callbacks_.connectionTime(
        {static_cast<std::uint32_t>(dialled.took.count()), static_cast<std::uint32_t>(handshook.count())},
        callbacks_.userData);
  }
  return true;
}

/// Hands the socket to librtmp, the switch watching over it, and starts the time that the server has.
bool LibrtmpConnection::adopt(int socket) {
  rtmp_->m_sb.sb_socket = socket;
  rtmp_->m_sb.sb_timedout = FALSE;
  rtmp_->m_bSendCounter = TRUE;
  if (!switch_->guard(socket)) {
    shut(false);
    return false;
  }
  setupTimer_ = platform_->queues->globalQueue()->after(options_.setupLimit, [weak = std::weak_ptr(switch_)] {
    if (const auto abortSwitch = weak.lock()) {
      abortSwitch->throwSwitch(AbortSwitch::State::Expired);
    }
  });
  return true;
}

bool LibrtmpConnection::handshake(RTMPError* error) {
  if (url_.tls) {
    ZEL_LOG_WARNING("Live: rtmps: the server's certificate is not verified");
  }
  const auto start = Clock::now();
  if (RTMP_Connect1(rtmp_.get(), nullptr) == FALSE) {
    // librtmp does not tell a secure connection that is refused from one that is not answered.
    const bool silent = rtmp_->m_sb.sb_timedout != FALSE || (url_.tls && Clock::now() - start >= options_.receiveLimit);
    if (silent) {
      return fail(error, RtmpFailureTimeout,
                  "the server accepted the connection and then said nothing for " + inSeconds(options_.receiveLimit) +
                      (url_.tls ? ": does it take secure connections?" : ": is it an RTMP server?"));
    }
    return fail(error, RtmpFailureHandshake,
                url_.tls ? "the server did not agree to a secure connection, or closed it during the handshake"
                         : "the server closed the connection during the handshake");
  }
  return announceChunkSize() || fail(error, RtmpFailureSend, "the connection broke during the handshake");
}

bool LibrtmpConnection::announceChunkSize() {
  std::array<char, kRtmpHeaderRoom + 4> block{};
  RTMPPacket packet{};
  packet.m_nChannel = kControlChannel;
  packet.m_headerType = RTMP_PACKET_SIZE_LARGE;
  packet.m_packetType = RTMP_PACKET_TYPE_CHUNK_SIZE;
  packet.m_nBodySize = 4;
  packet.m_body = block.data() + kRtmpHeaderRoom;
  AMF_EncodeInt32(packet.m_body, packet.m_body + 4, static_cast<int>(options_.chunkSize));
  if (RTMP_SendPacket(rtmp_.get(), &packet, FALSE) == FALSE) {
    return false;
  }
  rtmp_->m_outChunkSize = static_cast<int>(options_.chunkSize);
  return true;
}

bool LibrtmpConnection::connectStream(RTMPError* error) {
  const LibrtmpScope scope(secrets_);
  rtmp_->m_mediaChannel = 0;
  const bool opened = readUntilPublishing(error);
  if (setupTimer_) {
    setupTimer_->cancel();
  }
  if (!opened || switch_->state() != AbortSwitch::State::Open) {
    shut(false);
    return opened ? fail(error, RtmpFailureTimeout, {}) : false;
  }
  // librtmp says goodbye wherever it finds a connection broken, which would block once more. It has no stream to say
  // goodbye to until shut() gives it back.
  streamId_ = std::exchange(rtmp_->m_stream_id, 0);
  publishing_ = true;
  watch_ = queue_->whenReadable(switch_->socket(), [this] { serve(); });
  serve();  // What came in one piece with the last answer.
  return true;
}

bool LibrtmpConnection::readUntilPublishing(RTMPError* error) {
  while (rtmp_->m_bPlaying == FALSE) {
    if (!waitForChunk(error) || !handleChunk(error)) {
      return false;
    }
  }
  return true;
}

bool LibrtmpConnection::waitForChunk(RTMPError* error) {
  const auto deadline = Clock::now() + options_.receiveLimit;
  for (;;) {
    switch (inbox_.look()) {
      case LibrtmpInbox::Chunk::Whole:
        return true;
      case LibrtmpInbox::Chunk::Invalid:
        return fail(error, RtmpFailureProtocol, "the server does not speak RTMP");
      case LibrtmpInbox::Chunk::Part:
        break;
    }
    if (switch_->wait(rtmp_->m_sb.sb_socket, POLLIN, deadline) != AbortSwitch::Wait::Ready) {
      return fail(error, RtmpFailureTimeout,
                  "the server did not answer within " + inSeconds(options_.receiveLimit) + " while opening the stream");
    }
    if (inbox_.fill() == LibrtmpInbox::Fill::Closed) {
      // Between our wish to publish and the server's answer this is how some servers say no.
      return rtmp_->m_stream_id > 0
                 ? fail(error, RtmpFailureRefused,
                        "the server refuses the stream: it closed the connection when asked to publish; is the key "
                        "right?")
                 : fail(error, RtmpFailureClosed,
                        "the server closed the connection while opening the stream; does it know the application?");
    }
  }
}

/// Reads the whole chunk that has been seen, and answers the message if it ends with it.
bool LibrtmpConnection::handleChunk(RTMPError* error) {
  RTMPPacket packet{};
  if (!inbox_.read(packet)) {
    return fail(error, RtmpFailureClosed, "the connection broke while reading");
  }
  if (!RTMPPacket_IsReady(&packet) || packet.m_nBodySize == 0) {
    return true;
  }
  const bool answered = answer(packet, error);
  RTMPPacket_Free(&packet);
  return answered;
}

bool LibrtmpConnection::answer(RTMPPacket& packet, RTMPError* error) {
  if (!isSafeToDecode(packet.m_packetType, {reinterpret_cast<std::uint8_t*>(packet.m_body), packet.m_nBodySize})) {
    ZEL_LOG_WARNING("Live: a malformed message of type %d from the server is ignored", packet.m_packetType);
    return true;
  }
  if (const auto status = readStatus(*rtmp_, packet); status && status->refuses) {
    const std::string text = maskSecrets(
        status->code + (status->description.empty() ? std::string() : " (" + status->description + ")"), secrets_);
    if (!publishing_) {
      return fail(error, RtmpFailureRefused, "the server refuses the stream: " + text);
    }
    ZEL_LOG_ERROR("Live: the server reports %s", text.c_str());
  }
  switch (packet.m_packetType) {
    case RTMP_PACKET_TYPE_AUDIO:
    case RTMP_PACKET_TYPE_VIDEO:
    case RTMP_PACKET_TYPE_INFO:
    case RTMP_PACKET_TYPE_FLASH_VIDEO:
      return true;
    default:
      RTMP_ClientPacket(rtmp_.get(), &packet);
  }
  if (publishing_) {
    rtmp_->m_stream_id = 0;
  }
  return isConnected() || fail(error, RtmpFailureClosed, "the server ended the stream");
}

/// The server sent something while we publish: pings want an answer, and a close is noticed here first.
void LibrtmpConnection::serve() {
  const LibrtmpScope scope(secrets_);
  RTMPError error;
  bool more = true;
  for (int reads = 0; more && reads < kReadsAtOnce; ++reads) {
    more = handleGathered(&error) && gather(&error);
  }
  if (error.code != 0 || !handleGathered(&error)) {
    breakOff(error);
  }
}

bool LibrtmpConnection::handleGathered(RTMPError* error) {
  for (;;) {
    switch (inbox_.look()) {
      case LibrtmpInbox::Chunk::Part:
        return true;
      case LibrtmpInbox::Chunk::Invalid:
        return fail(error, RtmpFailureProtocol, "the server sent what is not RTMP");
      case LibrtmpInbox::Chunk::Whole:
        if (!handleChunk(error)) {
          return false;
        }
    }
  }
}

/// Takes what has arrived; false when there is nothing, or nothing more to come.
bool LibrtmpConnection::gather(RTMPError* error) {
  if (switch_->wait(rtmp_->m_sb.sb_socket, POLLIN, Clock::time_point()) == AbortSwitch::Wait::Timeout) {
    return false;
  }
  return inbox_.fill() != LibrtmpInbox::Fill::Closed ||
         fail(error, RtmpFailureClosed, "the server closed the connection");
}

std::int32_t LibrtmpConnection::sendPacket(const RtmpMessage& message, RTMPError* error) {
  const LibrtmpScope scope(secrets_);
  if (message.body.size() > kLargestBody) {
    *error = {RtmpFailureSend, "a message of more than 16 MB cannot be sent"};
    return -1;
  }
  if (!watch_ && isConnected()) {
    serve();  // Where the queue cannot watch the socket.
  }
  if (!isConnected()) {
    return -1;
  }
  RTMPPacket packet{};
  packet.m_headerType = message.headerType;
  packet.m_packetType = message.type;
  packet.m_hasAbsTimestamp = message.absoluteTimestamp ? 1 : 0;
  packet.m_nChannel = message.channel;
  packet.m_nTimeStamp = message.timestamp;
  packet.m_nInfoField2 = message.streamId;
  packet.m_nBodySize = static_cast<std::uint32_t>(message.body.size());
  packet.m_body = reinterpret_cast<char*>(message.body.data());
  // librtmp shortens a header that resembles the channel's last one; of a message of type 0 there is no other.
  if (message.channel < rtmp_->m_channelsAllocatedOut && rtmp_->m_vecChannelsOut[message.channel] != nullptr) {
    rtmp_->m_vecChannelsOut[message.channel]->m_packetType = 0;
  }
  const auto start = Clock::now();
  const std::int32_t sent = RTMP_SendPacket(rtmp_.get(), &packet, FALSE);
  if (sent != 1) {
    const bool stalled = Clock::now() - start >= options_.sendLimit;
    fail(error, RtmpFailureSend,
         stalled ? "the server has taken nothing for " + inSeconds(options_.sendLimit)
                 : std::string("the connection broke while sending"));
    breakOff(*error);
  }
  return sent;
}

void LibrtmpConnection::breakOff(const RTMPError& error) {
  shut(false);
  if (callbacks_.error != nullptr) {
    callbacks_.error(error, callbacks_.userData);
  }
}

void LibrtmpConnection::close(RTMPError* error) {
  const LibrtmpScope scope(secrets_);
  shut(error->code >= 0);
  if (callbacks_.error != nullptr) {
    callbacks_.error(*error, callbacks_.userData);
  }
}

void LibrtmpConnection::shut(bool politely) {
  if (setupTimer_) {
    setupTimer_->cancel();
  }
  watch_.reset();
  const int socket = switch_->socket();
  const auto deadline = Clock::now() + options_.closeLimit;
  const auto allHasLeft = [&] { return switch_->wait(socket, POLLOUT, deadline) == AbortSwitch::Wait::Ready; };
  // A reset: without it a server that reads nothing would not learn of the end, and keep the stream's name taken.
  const auto resetWhenClosed = [socket] {
    const linger now{1, 0};
    ::setsockopt(socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  };
  bool goodbye = false;
  if (socket >= 0) {
    // From here on the socket counts as writable when the kernel holds nothing that is yet to leave.
    const int leastUnsent = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &leastUnsent, sizeof leastUnsent);
    setSocketTimeout(socket, SO_SNDTIMEO, options_.closeLimit);
    setSocketTimeout(socket, SO_RCVTIMEO, options_.closeLimit);
    goodbye = politely && publishing_ && isConnected() && allHasLeft();
    if (!goodbye) {
      resetWhenClosed();
      ::shutdown(socket, SHUT_RDWR);
    }
    rtmp_->m_stream_id = goodbye ? streamId_ : 0;
  }
  publishing_ = false;
  RTMP_Close(rtmp_.get());
  if (goodbye && !allHasLeft()) {
    resetWhenClosed();
  }
  switch_->release();
}

std::unique_ptr<RtmpConnection> makeLibrtmpConnection(const RtmpOptions& options,
                                                      const std::shared_ptr<const Platform>& platform,
                                                      const std::shared_ptr<Queue>& queue) {
  return std::make_unique<LibrtmpConnection>(options, platform, queue);
}

}  // namespace zellive
