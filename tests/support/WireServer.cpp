#include "tests/support/WireServer.h"

#include <poll.h>

#include <algorithm>
#include <map>
#include <random>

namespace zellive::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kHandshakeSize = 1536;
constexpr std::uint32_t kExtended = 0xFFFFFF;

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

/// The command that a message is; empty when it is none.
std::string commandOf(const WireMessage& message) {
  if (message.type != 20 || message.body.size() <= 3) {
    return "";
  }
  const std::size_t length = message.body[1] << 8 | message.body[2];
  if (message.body.size() < 3 + length + 9) {
    throw Malformed{};  // A command without a transaction.
  }
  return {message.body.begin() + 3, message.body.begin() + 3 + static_cast<std::ptrdiff_t>(length)};
}

}  // namespace

struct WireServer::Client {
  explicit Client(int socket) : descriptor(socket) {}
  ~Client() {
    thread.join();
    ::close(descriptor);
  }

  Bytes read(std::size_t count) {
    Bytes bytes(count);
    if (::recv(descriptor, bytes.data(), count, MSG_WAITALL) != static_cast<ssize_t>(count)) {
      throw ConnectionOver{};
    }
    return bytes;
  }
  std::uint32_t readNumber(std::size_t size) { return bigEndian(read(size)); }
  void write(const Bytes& bytes) { (void)!::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  /// A command of one chunk: no answer of ours needs more.
  void writeCommand(std::uint8_t chunkStream, std::uint8_t streamId, const std::string& body) {
    Bytes bytes{chunkStream, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(body.size()), 20, streamId, 0, 0, 0};
    bytes.insert(bytes.end(), body.begin(), body.end());
    write(bytes);
  }
  [[noreturn]] void reset() {
    const sockaddr nobody{AF_UNSPEC, {}};
    (void)::connect(descriptor, &nobody, sizeof nobody);
    throw ConnectionOver{};
  }

  void handshake(WireFault fault);
  /// Says what a server says to such a command.
  void answer(const WireMessage& message, WireFault fault);
  /// The next whole message.
  WireMessage nextMessage();

  struct Channel {
    WireMessage message;  // The one that comes in pieces; between two, the latter's header leans on the former's.
    std::uint32_t length = 0;
  };
  const int descriptor;
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

WireMessage WireServer::Client::nextMessage() {
  for (;;) {
    const auto basic = readNumber(1);
    const auto headerType = static_cast<std::uint8_t>(basic >> 6);
    auto& [message, length] = channels[basic & 0x3F];
    const bool begins = message.chunks++ == 0;
    if ((basic & 0x3F) < 2 || (!begins && headerType != 3)) {
      throw Malformed{};  // An id below 2 stands for one of two or three bytes, which no publisher of ours needs.
    }
    if (headerType <= 2) {
      message.timestampField = readNumber(3);
      message.extendedTimestamp = message.timestampField == kExtended;
    }
    if (headerType <= 1) {
      length = readNumber(3);
      message.type = static_cast<std::uint8_t>(readNumber(1));
    }
    if (headerType == 0) {
      message.streamId = __builtin_bswap32(readNumber(4));  // The one number that RTMP writes little-endian.
    }
    if (message.extendedTimestamp) {
      const auto field = readNumber(4);
      if (headerType == 3 && field != message.timestampField) {
        throw Malformed{};
      }
      message.timestampField = field;
    }
    if (begins) {
      message.chunkStream = basic & 0x3F;
      message.headerType = headerType;
      message.timestamp = message.timestampField + (headerType == 0 ? 0 : message.timestamp);
    }
    const Bytes piece = read(std::min<std::size_t>(chunkSize, length - message.body.size()));
    message.body.insert(message.body.end(), piece.begin(), piece.end());
    if (message.body.size() == length) {
      const auto whole = message;
      message.chunks = 0;
      message.body.clear();
      chunkSize = whole.type == 1 ? bigEndian(whole.body) : chunkSize;
      return whole;
    }
  }
}

void WireServer::Client::answer(const WireMessage& message, WireFault fault) {
  const auto name = commandOf(message);
  const auto reply = [&](const char* what) {
    const auto transaction = message.body.begin() + 3 + static_cast<std::ptrdiff_t>(name.size());
    return '\2' + counted(what) +
           (name == "publish" ? std::string(9, '\0') : std::string(transaction, transaction + 9)) + '\5';
  };
  if (name == "connect") {
    if (fault == WireFault::ResetAfterConnect) {
      nextMessage();  // The chunk size, which the client sends before it waits for the answer.
    }
    writeCommand(3, 0,
                 fault == WireFault::RefuseConnect
                     ? reply("_error") + information("error", "NetConnection.Connect.Rejected", "by the test")
                     : reply("_result") + information("status", "NetConnection.Connect.Success", "by the test"));
    if (fault == WireFault::ResetAfterConnect) {
      reset();
    }
  } else if (name == "createStream" && fault == WireFault::CloseAfterConnect) {
    throw ConnectionOver{};
  } else if (name == "createStream" && fault != WireFault::SilentAfterConnect) {
    writeCommand(3, 0, reply("_result") + std::string("\0\x3F\xF0\0\0\0\0\0\0", 9));  // Stream 1.
  } else if (name == "publish") {
    const auto stream = message.body.begin() + 23;  // Its name, behind a null and the name's length.
    writeCommand(5, 1,
                 reply("onStatus") + (fault == WireFault::RefusePublish
                                          ? information("error", "NetStream.Publish.BadName",
                                                        std::string(stream, stream + stream[-1]) + " is taken")
                                          : information("status", "NetStream.Publish.Start", "by the test")));
  }
}

WireServer::WireServer(WireFault fault, int receiveBuffer, int family)
    : listener_(family), host_(family == AF_INET6 ? "[::1]" : "127.0.0.1"), fault_(fault) {
  if (receiveBuffer > 0) {
    ::setsockopt(listener_.descriptor(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  }
  acceptor_ = std::thread([this] { acceptLoop(); });
}

WireServer::~WireServer() {
  ::shutdown(listener_.descriptor(), SHUT_RDWR);
  acceptor_.join();
  cut();
  clients_.clear();
}

std::string WireServer::url(const std::string& name) const {
  return "rtmp://" + host_ + ":" + std::to_string(port()) + "/live/" + name;
}

void WireServer::acceptLoop() {
  for (int descriptor = 0; (descriptor = ::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
    const std::lock_guard lock(mutex_);
    ++accepted_;
    auto& client = clients_.emplace_back(descriptor);
    client.thread = std::thread([this, &client] {
      try {
        serve(client);
      } catch (const Malformed&) {
        wellFormed_ = false;
      } catch (const ConnectionOver&) {
      }
      ::shutdown(client.descriptor, SHUT_RDWR);
      ++closed_;
      changed_.notify_all();
    });
    changed_.notify_all();
  }
}

void WireServer::serve(Client& client) {
  while (fault_ == WireFault::Silent) {
    client.read(1);
  }
  client.handshake(fault_);
  for (std::size_t mediaSeen = 0;;) {
    if (mediaSeen >= 3 && fault_ == WireFault::StopReading) {
      pollfd hangUp{client.descriptor, POLLRDHUP, 0};
      ::poll(&hangUp, 1, -1);  // Nothing is read; only the end of the connection is seen.
      throw ConnectionOver{};
    }
    const auto message = client.nextMessage();
    mediaSeen += message.type == 8 || message.type == 9 ? 1 : 0;
    {
      const std::lock_guard lock(mutex_);
      messages_.push_back(message);
    }
    changed_.notify_all();
    client.answer(message, fault_);
  }
}

std::vector<WireMessage> WireServer::messages() const {
  const std::lock_guard lock(mutex_);
  return messages_;
}

std::vector<WireMessage> WireServer::media() const {
  auto all = messages();
  std::erase_if(all, [](const WireMessage& m) { return m.type != 8 && m.type != 9 && m.type != 18; });
  return all;
}

std::vector<std::string> WireServer::commands() const {
  std::vector<std::string> names;
  std::ranges::transform(messages(), std::back_inserter(names), commandOf);
  std::erase(names, "");
  return names;
}

bool WireServer::waitUntil(const std::function<bool()>& holds, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!holds()) {
    std::unique_lock lock(mutex_);
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    // The predicate takes the lock itself, so a change between it and this wait may be missed: look again soon.
    changed_.wait_for(lock, std::chrono::milliseconds(20));
  }
  return true;
}

bool WireServer::waitForMedia(std::size_t count) {
  return waitUntil([&] { return media().size() >= count; });
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
    ::shutdown(client.descriptor, SHUT_RDWR);
  }
}

}  // namespace zellive::test
