#include "tests/support/WireServer.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <bit>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <utility>

namespace zellive::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kHandshakeSize = 1536;
constexpr std::uint32_t kExtended = 0xFFFFFF;

struct ConnectionOver {};
struct Malformed {};

std::uint64_t bigEndian(const std::uint8_t* bytes, std::size_t count) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    value = value << 8 | bytes[i];
  }
  return value;
}

void putInteger(Bytes& out, std::uint64_t value, std::size_t size) {
  for (std::size_t i = size; i > 0; --i) {
    out.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
  }
}

void putString(Bytes& out, std::string_view text, bool marker = true) {
  out.insert(out.end(), marker ? 1 : 0, 0x02);
  putInteger(out, text.size(), 2);
  out.insert(out.end(), text.begin(), text.end());
}

void putNumber(Bytes& out, double number) {
  out.push_back(0x00);
  putInteger(out, std::bit_cast<std::uint64_t>(number), 8);
}

/// {"level": …, "code": …, "description": …}
void putInfo(Bytes& out, const char* level, const char* code) {
  out.push_back(0x03);
  const std::array<std::pair<const char*, const char*>, 3> pairs{
      {{"level", level}, {"code", code}, {"description", "by the test"}}};
  for (const auto& [key, value] : pairs) {
    putString(out, key, false);
    putString(out, value);
  }
  out.insert(out.end(), {0, 0, 9});
}

/// The command that a message is; empty when it is none.
std::string commandOf(const WireMessage& message) {
  if (message.type != 20 || message.body.size() <= 3) {
    return "";
  }
  const auto length = bigEndian(message.body.data() + 1, 2);
  if (message.body.size() < 3 + length + 9) {
    throw Malformed{};  // A command without a transaction.
  }
  return {reinterpret_cast<const char*>(message.body.data()) + 3, length};
}

}  // namespace

struct WireServer::Client {
  explicit Client(int socket) : descriptor(socket) {}
  ~Client() { ::close(descriptor); }

  void read(std::uint8_t* to, std::size_t count) {
    while (count > 0) {
      const auto got = ::recv(descriptor, to, count, 0);
      if (got <= 0) {
        throw ConnectionOver{};
      }
      to += got;
      count -= static_cast<std::size_t>(got);
    }
  }
  std::uint8_t readByte() {
    std::uint8_t byte = 0;
    read(&byte, 1);
    return byte;
  }
  std::uint32_t readNumber(std::size_t bytes) {
    std::array<std::uint8_t, 4> raw{};
    read(raw.data(), bytes);
    return static_cast<std::uint32_t>(bigEndian(raw.data(), bytes));
  }
  void write(const Bytes& bytes) {
    const std::lock_guard lock(writing);
    (void)!::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  void writeMessage(std::uint8_t chunkStream, std::uint8_t type, std::uint32_t streamId, const Bytes& body) {
    Bytes out{chunkStream, 0, 0, 0};
    putInteger(out, body.size(), 3);
    out.push_back(type);
    putInteger(out, __builtin_bswap32(streamId), 4);
    for (std::size_t at = 0; at < body.size(); at += 128) {
      if (at > 0) {
        out.push_back(static_cast<std::uint8_t>(0xC0 | chunkStream));
      }
      out.insert(out.end(), &body[at], &body[at] + std::min<std::size_t>(128, body.size() - at));
    }
    write(out);
  }

  void handshake(WireFault fault);
  /// Says what a server says to such a command.
  void answer(const WireMessage& message, WireFault fault);
  /// The next whole message.
  WireMessage nextMessage();

  struct Channel {
    std::uint32_t timestamp = 0, field = 0, length = 0, streamId = 0;
    std::uint8_t type = 0;
    bool extended = false;
    std::optional<WireMessage> partial;
  };
  int descriptor;
  std::mutex writing;
  std::thread thread;
  std::map<std::uint32_t, Channel> channels;
  std::uint32_t chunkSize = 128;
};

void WireServer::Client::handshake(WireFault fault) {
  if (readByte() != 3) {
    throw Malformed{};
  }
  if (fault == WireFault::CloseInHandshake) {
    throw ConnectionOver{};
  }
  Bytes c1(kHandshakeSize);
  read(c1.data(), c1.size());
  if (fault == WireFault::Drip) {
    pollfd hangUp{descriptor, POLLRDHUP, 0};
    while (::poll(&hangUp, 1, 20) == 0) {
      write({3});
    }
    throw ConnectionOver{};
  }
  Bytes answer{3};
  answer.resize(1 + kHandshakeSize, 0x5A);
  answer.insert(answer.end(), c1.begin(), c1.end());
  if (fault == WireFault::Garbage) {
    std::mt19937 random(7);
    answer.resize(answer.size() + 4096);
    std::generate(answer.begin(), answer.end(), [&] { return static_cast<std::uint8_t>(random()); });
  }
  write(answer);
  Bytes c2(kHandshakeSize);
  read(c2.data(), c2.size());
}

WireMessage WireServer::Client::nextMessage() {
  for (;;) {
    const auto basic = readByte();
    const std::uint32_t id = basic & 0x3F;
    if (id < 2) {
      throw Malformed{};  // An id of two or three bytes, which no publisher of ours needs.
    }
    const auto headerType = static_cast<std::uint8_t>(basic >> 6);
    auto& channel = channels[id];
    const bool begins = !channel.partial;
    if (!begins && headerType != 3) {
      throw Malformed{};
    }
    if (headerType <= 2) {
      channel.field = readNumber(3);
      channel.extended = channel.field == kExtended;
    }
    if (headerType <= 1) {
      channel.length = readNumber(3);
      channel.type = readByte();
    }
    if (headerType == 0) {
      channel.streamId = __builtin_bswap32(readNumber(4));  // The one number that RTMP writes little-endian.
    }
    if (channel.extended) {
      const auto value = readNumber(4);
      if (headerType <= 2) {
        channel.field = value;
      } else if (value != channel.field) {
        throw Malformed{};
      }
    }
    if (begins) {
      channel.timestamp = headerType == 0 ? channel.field : channel.timestamp + channel.field;
      channel.partial = WireMessage{
          id, headerType, channel.field, channel.extended, channel.timestamp, channel.type, channel.streamId, 0, {}};
    }
    auto& message = *channel.partial;
    const auto size = std::min<std::size_t>(chunkSize, channel.length - message.body.size());
    const auto at = message.body.size();
    message.body.resize(at + size);
    read(message.body.data() + at, size);
    ++message.chunks;
    if (message.body.size() == channel.length) {
      auto whole = std::move(message);
      channel.partial.reset();
      if (whole.type == 1 && whole.body.size() == 4) {
        chunkSize = static_cast<std::uint32_t>(bigEndian(whole.body.data(), 4));
      }
      return whole;
    }
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
  for (const auto& client : clients_) {
    client->thread.join();
  }
}

std::string WireServer::url(const std::string& name) const {
  return "rtmp://" + host_ + ":" + std::to_string(port()) + "/live/" + name;
}

void WireServer::acceptLoop() {
  for (;;) {
    const int descriptor = ::accept4(listener_.descriptor(), nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) {
      return;
    }
    const std::lock_guard lock(mutex_);
    ++accepted_;
    clients_.push_back(std::make_unique<Client>(descriptor));
    auto& client = *clients_.back();
    client.thread = std::thread([this, &client] {
      try {
        serve(client);
      } catch (const Malformed&) {
        wellFormed_ = false;
      } catch (const ConnectionOver&) {
      }
      ::shutdown(client.descriptor, SHUT_RDWR);
      ++closed_;
      note();
    });
    changed_.notify_all();
  }
}

void WireServer::serve(Client& client) {
  const WireFault fault = fault_;
  while (fault == WireFault::Silent) {
    client.readByte();
  }
  client.handshake(fault);
  for (std::size_t mediaSeen = 0;;) {
    if (mediaSeen >= 3 && fault == WireFault::StopReading) {
      pollfd hangUp{client.descriptor, 0, 0};
      ::poll(&hangUp, 1, -1);  // Nothing is read; only the end of the connection is seen.
      throw ConnectionOver{};
    }
    if (mediaSeen >= 3 && fault == WireFault::CloseMidMessage) {
      client.readNumber(3);
      throw ConnectionOver{};
    }
    const auto message = client.nextMessage();
    mediaSeen += message.type == 8 || message.type == 9 ? 1 : 0;
    note(&message);
    client.answer(message, fault);
  }
}

void WireServer::Client::answer(const WireMessage& message, WireFault fault) {
  const auto name = commandOf(message);
  const auto reply = [&](const char* what) {
    Bytes body;
    putString(body, what);
    const auto* transaction = message.body.data() + 3 + name.size() + 1;
    putNumber(body, name == "publish" ? 0 : std::bit_cast<double>(bigEndian(transaction, 8)));
    body.push_back(0x05);
    return body;
  };
  if (name == "connect") {
    if (fault == WireFault::ResetAfterConnect) {
      nextMessage();  // The chunk size, which the client sends before it waits for the answer.
    }
    const bool refuse = fault == WireFault::RefuseConnect;
    Bytes body = reply(refuse ? "_error" : "_result");
    putInfo(body, refuse ? "error" : "status",
            refuse ? "NetConnection.Connect.Rejected" : "NetConnection.Connect.Success");
    writeMessage(3, 20, 0, body);
    if (fault == WireFault::ResetAfterConnect) {
      const sockaddr nobody{AF_UNSPEC, {}};
      (void)::connect(descriptor, &nobody, sizeof nobody);
      throw ConnectionOver{};
    }
  } else if (name == "createStream" && fault == WireFault::CloseAfterConnect) {
    throw ConnectionOver{};
  } else if (name == "createStream" && fault != WireFault::SilentAfterConnect) {
    Bytes body = reply("_result");
    putNumber(body, 1);
    writeMessage(3, 20, 0, body);
  } else if (name == "publish") {
    const bool refuse = fault == WireFault::RefusePublish;
    Bytes body = reply("onStatus");
    putInfo(body, refuse ? "error" : "status", refuse ? "NetStream.Publish.BadName" : "NetStream.Publish.Start");
    writeMessage(5, 20, 1, body);
  }
}

void WireServer::note(const WireMessage* message) {
  const std::lock_guard lock(mutex_);
  if (message != nullptr) {
    messages_.push_back(*message);
  }
  changed_.notify_all();
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
  for (const auto& message : messages()) {
    names.push_back(commandOf(message));
  }
  std::erase(names, "");
  return names;
}

bool WireServer::waitUntil(const std::function<bool()>& holds, std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    if (holds()) {
      return true;
    }
    std::unique_lock lock(mutex_);
    // The predicate takes the lock itself, so a change between it and this wait may be missed: look again soon.
    if (std::chrono::steady_clock::now() >= end) {
      return false;
    }
    changed_.wait_for(lock, std::chrono::milliseconds(20));
  }
}

bool WireServer::waitForMedia(std::size_t count) {
  return waitUntil([&] { return media().size() >= count; });
}

void WireServer::inject(const std::vector<std::uint8_t>& bytes) {
  const std::lock_guard lock(mutex_);
  for (const auto& client : clients_) {
    client->write(bytes);
  }
}

void WireServer::cut() {
  const std::lock_guard lock(mutex_);
  for (const auto& client : clients_) {
    ::shutdown(client->descriptor, SHUT_RDWR);
  }
}

}  // namespace zellive::test
