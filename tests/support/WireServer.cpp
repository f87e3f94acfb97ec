#include "tests/support/WireServer.h"

#include <poll.h>

#include <algorithm>
#include <climits>
#include <map>
#include <random>

namespace zellive::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kHandshakeSize = 1536;

struct ConnectionOver {};
struct Malformed {};

std::uint32_t bigEndian(const Bytes& bytes) {
  std::uint32_t value = 0;
  for (const auto byte : bytes) {
    value = value << 8 | byte;
  }
  return value;
}

/// Text as AMF0 has it inside objects: its length, then itself.
std::string counted(const std::string& text) {
  return std::string{static_cast<char>(text.size() >> 8), static_cast<char>(text.size())} + text;
}

/// {"level": …, "code": …, "description": …}
std::string information(const char* level, const char* code, const std::string& description) {
  const auto member = [](const char* key, const std::string& value) { return counted(key) + '\2' + counted(value); };
  return '\3' + member("level", level) + member("code", code) + member("description", description) +
         std::string("\0\0\x09", 3);
}

}  // namespace

std::string WireMessage::command() const {
  if (type != 20 || body.size() <= 3) {
    return "";
  }
  const std::size_t length = body[1] << 8 | body[2];
  if (body.size() < 3 + length + 9) {
    throw Malformed{};  // A command without a transaction.
  }
  return {body.begin() + 3, body.begin() + 3 + static_cast<std::ptrdiff_t>(length)};
}

struct WireServer::Client {
  explicit Client(int accepted) : socket(accepted) {}
  ~Client() { thread.join(); }

  Bytes read(std::size_t count) {
    Bytes bytes(count);
    if (::recv(socket.get(), bytes.data(), count, MSG_WAITALL) != static_cast<ssize_t>(count)) {
      throw ConnectionOver{};
    }
    return bytes;
  }
  std::uint32_t readNumber(std::size_t size) { return bigEndian(read(size)); }
  void write(const auto& bytes) { (void)!::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  /// Reads nothing more; sees only the end of the connection.
  void waitForEnd() {
    pollfd hangUp{socket.get(), POLLRDHUP, 0};
    ::poll(&hangUp, 1, -1);
  }

  void handshake(WireFault fault);
  /// Says what a server says to such a command.
  void answer(const WireMessage& message, WireFault fault);
  WireMessage nextMessage();

  /// A chunk stream's latest message. The next one's header leans on it.
  struct Channel {
    std::uint32_t headerType = 0, field = 0, timestamp = 0, length = 0, stream = 0, chunks = 0;
    std::uint8_t type = 0;
    bool extended = false;
    Bytes body;
  };
  const Descriptor socket;
  std::thread thread;
  std::map<std::uint32_t, Channel> channels;
  std::uint32_t chunkSize = 128;
};

void WireServer::Client::handshake(WireFault fault) {
  if (readNumber(1) != 3) {
    throw Malformed{};
  }
  const Bytes c1 = read(kHandshakeSize);
  Bytes answer(1 + kHandshakeSize, 3);
  answer.insert(answer.end(), c1.begin(), c1.end());
  if (fault == WireFault::Garbage) {
    std::generate_n(std::back_inserter(answer), 4096, std::minstd_rand(7));
  }
  write(answer);
  read(kHandshakeSize);
}

/// Reads chunks until one ends a message.
WireMessage WireServer::Client::nextMessage() {
  for (;;) {
    const auto basic = readNumber(1);
    const auto headerType = basic >> 6;
    auto& channel = channels[basic & 0x3F];
    const bool begins = channel.chunks++ == 0;
    if ((basic & 0x3F) < 2 || (!begins && headerType != 3)) {
      throw Malformed{};  // An id below 2 stands for one of two or three bytes, which no publisher of ours needs.
    }
    if (headerType <= 2) {
      channel.field = readNumber(3);
      channel.extended = channel.field == 0xFFFFFF;
    }
    if (headerType <= 1) {
      channel.length = readNumber(3);
      channel.type = static_cast<std::uint8_t>(readNumber(1));
    }
    if (headerType == 0) {
      channel.stream = __builtin_bswap32(readNumber(4));  // The one number that RTMP writes little-endian.
    }
    if (channel.extended) {
      const auto field = readNumber(4);
      if (headerType == 3 && field != channel.field) {
        throw Malformed{};
      }
      channel.field = field;
    }
    if (begins) {
      channel.headerType = headerType;
      channel.timestamp = channel.field + (headerType == 0 ? 0 : channel.timestamp);
    }
    const Bytes piece = read(std::min<std::size_t>(chunkSize, channel.length - channel.body.size()));
    channel.body.insert(channel.body.end(), piece.begin(), piece.end());
    if (channel.body.size() == channel.length) {
      const auto number = [](char sign, std::uint32_t value) { return sign + std::to_string(value); };
      const auto header = std::to_string(basic & 0x3F) + number(':', channel.headerType) + " " +
                          number(channel.extended ? 'x' : '+', channel.field) + " " + number('=', channel.timestamp) +
                          " s" + std::to_string(channel.stream) + " c" + std::to_string(channel.chunks);
      channel.chunks = 0;
      if (channel.type == 1) {
        chunkSize = bigEndian(channel.body);
      }
      return {header, channel.type, channel.timestamp, std::exchange(channel.body, {}), {}};
    }
  }
}

void WireServer::Client::answer(const WireMessage& message, WireFault fault) {
  const auto name = message.command();
  const auto reply = [&](const char* what) {
    const auto transaction = message.body.begin() + 3 + static_cast<std::ptrdiff_t>(name.size());
    return '\2' + counted(what) + std::string(transaction, transaction + 9) + '\5';
  };
  // In one chunk: no answer of ours needs more.
  const auto write = [this](std::uint8_t chunkStream, std::uint8_t stream, const std::string& body) {
    Bytes bytes{chunkStream, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(body.size()), 20, stream, 0, 0, 0};
    bytes.insert(bytes.end(), body.begin(), body.end());
    this->write(bytes);
  };
  if (name == "connect") {
    if (fault == WireFault::ResetAfterConnect) {
      nextMessage();  // The chunk size, which the client sends before it waits for the answer.
    }
    fault == WireFault::RefuseConnect
        ? write(3, 0, reply("_error") + information("error", "NetConnection.Connect.Rejected", "by the test"))
        : write(3, 0, reply("_result") + information("status", "NetConnection.Connect.Success", "by the test"));
    if (fault == WireFault::ResetAfterConnect) {
      const sockaddr nobody{AF_UNSPEC, {}};
      (void)::connect(socket.get(), &nobody, sizeof nobody);
      throw ConnectionOver{};
    }
  } else if (name == "createStream" && fault == WireFault::CloseAfterConnect) {
    throw ConnectionOver{};
  } else if (name == "createStream" && fault != WireFault::SilentAfterConnect) {
    write(3, 0, reply("_result") + std::string("\0\x3F\xF0\0\0\0\0\0\0", 9));  // Stream 1.
  } else if (name == "publish") {
    const auto stream = message.body.begin() + 23;  // Its name, behind a null and the name's length.
    fault == WireFault::RefusePublish
        ? write(5, 1,
                reply("onStatus") + information("error", "NetStream.Publish.BadName",
                                                std::string(stream, stream + stream[-1]) + " is taken"))
        : write(5, 1, reply("onStatus") + information("status", "NetStream.Publish.Start", "by the test"));
  }
}

WireServer::WireServer(WireFault fault, int family) : listener_(LoopbackAddress(family, 0)), fault_(fault) {
  if (fault == WireFault::StopReading) {
    constexpr int little = 16 * 1024;
    ::setsockopt(listener_.descriptor(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
  }
  acceptor_ = std::thread([this] {
    for (int socket = 0; (socket = ::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      const std::lock_guard lock(mutex_);
      ++accepted_;
      auto& client = clients_.emplace_back(socket);
      client.thread = std::thread([this, &client] { serve(client); });
    }
  });
}

WireServer::~WireServer() {
  ::shutdown(listener_.descriptor(), SHUT_RDWR);
  acceptor_.join();
  cut();
  clients_.clear();
}

std::string WireServer::url(const std::string& name) const {
  sockaddr address{};
  socklen_t length = sizeof address;
  getsockname(listener_.descriptor(), &address, &length);
  return std::string(address.sa_family == AF_INET6 ? "rtmp://[::1]:" : "rtmp://127.0.0.1:") + std::to_string(port()) +
         "/live/" + name;
}

void WireServer::serve(Client& client) {
  try {
    const int most = fault_ == WireFault::Silent ? 0 : fault_ == WireFault::StopReading ? 3 : INT_MAX;
    most > 0 ? client.handshake(fault_) : void();
    for (int frames = 0; frames < most;) {
      auto message = client.nextMessage();
      message.arrival = std::chrono::steady_clock::now();
      frames += message.type == 8 || message.type == 9 ? 1 : 0;
      {
        const std::lock_guard lock(mutex_);
        messages_.push_back(message);
      }
      client.answer(message, fault_);
    }
    client.waitForEnd();
  } catch (const Malformed&) {
    wellFormed_ = false;
  } catch (const ConnectionOver&) {
  }
  ::shutdown(client.socket.get(), SHUT_RDWR);
  ++closed_;
}

std::vector<WireMessage> WireServer::messages(bool mediaOnly) const {
  const std::lock_guard lock(mutex_);
  auto all = messages_;
  std::erase_if(all, [&](const WireMessage& message) { return mediaOnly && !message.isMedia(); });
  return all;
}

void WireServer::inject(const std::vector<std::uint8_t>& bytes) {
  const std::lock_guard lock(mutex_);
  for (auto& client : clients_) {
    client.write(bytes);
  }
}

void WireServer::cut() {
  const std::lock_guard lock(mutex_);
  for (const auto& client : clients_) {
    ::shutdown(client.socket.get(), SHUT_RDWR);
  }
}

}  // namespace zellive::test
