#include "tests/support/WireServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
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

struct ConnectionOver : std::runtime_error {
  using std::runtime_error::runtime_error;
};
struct Malformed : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::uint32_t bigEndian(const std::uint8_t* bytes, std::size_t count) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < count; ++i) {
    value = value << 8 | bytes[i];
  }
  return value;
}

void putString(Bytes& out, std::string_view text, bool marker = true) {
  if (marker) {
    out.push_back(0x02);
  }
  out.push_back(static_cast<std::uint8_t>(text.size() >> 8));
  out.push_back(static_cast<std::uint8_t>(text.size()));
  out.insert(out.end(), text.begin(), text.end());
}

void putNumber(Bytes& out, double number) {
  out.push_back(0x00);
  const auto bits = std::bit_cast<std::uint64_t>(number);
  for (int shift = 56; shift >= 0; shift -= 8) {
    out.push_back(static_cast<std::uint8_t>(bits >> shift));
  }
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

}  // namespace

struct WireServer::Client {
  explicit Client(int socket) : descriptor(socket) {}
  ~Client() { ::close(descriptor); }

  void read(std::uint8_t* to, std::size_t count) {
    while (count > 0) {
      const auto got = ::recv(descriptor, to, count, 0);
      if (got <= 0) {
        throw ConnectionOver("closed by the client");
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
    return bigEndian(raw.data(), bytes);
  }
  void write(const Bytes& bytes) {
    const std::lock_guard lock(writing);
    (void)!::send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  void writeMessage(std::uint8_t chunkStream, std::uint8_t type, std::uint32_t streamId, const Bytes& body) {
    Bytes out{chunkStream, 0, 0, 0};
    out.push_back(static_cast<std::uint8_t>(body.size() >> 16));
    out.push_back(static_cast<std::uint8_t>(body.size() >> 8));
    out.push_back(static_cast<std::uint8_t>(body.size()));
    out.push_back(type);
    for (int i = 0; i < 4; ++i) {
      out.push_back(static_cast<std::uint8_t>(streamId >> (8 * i)));
    }
    for (std::size_t at = 0; at < body.size(); at += 128) {
      if (at > 0) {
        out.push_back(static_cast<std::uint8_t>(0xC0 | chunkStream));
      }
      out.insert(out.end(), body.begin() + static_cast<std::ptrdiff_t>(at),
                 body.begin() + static_cast<std::ptrdiff_t>(std::min(at + 128, body.size())));
    }
    write(out);
  }

  void reset() {
    const sockaddr nobody{AF_UNSPEC, {}};
    (void)::connect(descriptor, &nobody, sizeof nobody);
  }

  void handshake(WireFault fault);
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
    throw Malformed("not RTMP version 3");
  }
  if (fault == WireFault::CloseInHandshake) {
    throw ConnectionOver("as the test wants");
  }
  Bytes c1(kHandshakeSize);
  read(c1.data(), c1.size());
  if (fault == WireFault::Drip) {
    pollfd hangUp{descriptor, POLLRDHUP, 0};
    while (::poll(&hangUp, 1, 20) == 0) {
      write({3});
    }
    throw ConnectionOver("as the test wants");
  }
  if (fault == WireFault::Garbage) {
    std::mt19937 random(7);
    Bytes noise(1 + 2 * kHandshakeSize + 4096);
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<std::uint8_t>(random()); });
    write(noise);
    return;
  }
  Bytes answer{3};
  answer.resize(1 + kHandshakeSize, 0x5A);
  answer.insert(answer.end(), c1.begin(), c1.end());
  write(answer);
  Bytes c2(kHandshakeSize);
  read(c2.data(), c2.size());
}

WireMessage WireServer::Client::nextMessage() {
  for (;;) {
    const auto basic = readByte();
    std::uint32_t id = basic & 0x3F;
    if (id == 0) {
      id = 64 + readByte();
    } else if (id == 1) {
      const auto low = readByte();
      id = 64U + low + 256U * readByte();
    }
    const auto headerType = static_cast<std::uint8_t>(basic >> 6);
    auto& channel = channels[id];
    const bool begins = !channel.partial;
    if (!begins && headerType != 3) {
      throw Malformed("a message begins inside another one");
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
      channel.streamId = 0;
      for (int i = 0; i < 4; ++i) {
        channel.streamId |= std::uint32_t{readByte()} << (8 * i);
      }
    }
    if (channel.extended) {
      const auto value = readNumber(4);
      if (headerType <= 2) {
        channel.field = value;
      } else if (value != channel.field) {
        throw Malformed("a continued chunk repeats another extended timestamp");
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
        chunkSize = bigEndian(whole.body.data(), 4);
      }
      return whole;
    }
  }
}

WireServer::WireServer() : WireServer(Options{}) {}

WireServer::WireServer(const Options& options) : options_(options), fault_(options.fault) {
  listener_ = ::socket(options.ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (options.receiveBufferBytes > 0) {
    ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &options.receiveBufferBytes, sizeof options.receiveBufferBytes);
  }
  sockaddr_storage address{};
  socklen_t length = 0;
  if (options.ipv6) {
    auto& six = reinterpret_cast<sockaddr_in6&>(address);
    six.sin6_family = AF_INET6;
    six.sin6_addr = in6addr_loopback;
    length = sizeof six;
  } else {
    auto& four = reinterpret_cast<sockaddr_in&>(address);
    four.sin_family = AF_INET;
    four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    length = sizeof four;
  }
  if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 16) != 0 || ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (listener_ >= 0) {
      ::close(std::exchange(listener_, -1));
    }
    return;
  }
  port_ = ntohs(options.ipv6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                             : reinterpret_cast<sockaddr_in&>(address).sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

WireServer::~WireServer() {
  ending_ = true;
  if (acceptor_.joinable()) {
    ::shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    ::close(listener_);
  }
  cut();
  for (const auto& client : clients_) {
    client->thread.join();
  }
}

std::string WireServer::url(const std::string& name) const {
  return std::string("rtmp://") + (options_.ipv6 ? "[::1]" : "127.0.0.1") + ":" + std::to_string(port_) + "/live/" +
         name;
}

void WireServer::acceptLoop() {
  while (!ending_) {
    const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
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
  if (fault == WireFault::Silent) {
    std::uint8_t byte = 0;
    for (;;) {
      client.read(&byte, 1);
    }
  }
  client.handshake(fault);
  std::size_t mediaSeen = 0;
  for (;;) {
    if (mediaSeen >= options_.faultAfter && fault == WireFault::StopReading) {
      pollfd hangUp{client.descriptor, 0, 0};
      ::poll(&hangUp, 1, -1);  // Nothing is read; only the end of the connection is seen.
      throw ConnectionOver("as the test wants");
    }
    if (mediaSeen >= options_.faultAfter && fault == WireFault::CloseMidMessage) {
      client.readNumber(3);
      throw ConnectionOver("as the test wants");
    }
    auto message = client.nextMessage();
    const bool isCommand = message.type == 20 && message.body.size() > 3;
    mediaSeen += message.type == 8 || message.type == 9 ? 1 : 0;
    std::string name;
    double transaction = 0;
    if (isCommand) {
      const auto length = bigEndian(message.body.data() + 1, 2);
      if (message.body.size() < 3 + length + 9) {
        throw Malformed("a command without a transaction");
      }
      name.assign(reinterpret_cast<const char*>(message.body.data()) + 3, length);
      std::uint64_t bits = 0;
      for (int i = 0; i < 8; ++i) {
        bits = bits << 8 | message.body[3 + length + 1 + static_cast<std::size_t>(i)];
      }
      transaction = std::bit_cast<double>(bits);
    }
    add(std::move(message));
    if (!isCommand) {
      continue;
    }
    {
      const std::lock_guard lock(mutex_);
      commands_.push_back(name);
    }
    note();
    Bytes answer;
    if (name == "connect") {
      if (fault == WireFault::ResetAfterConnect) {
        add(client.nextMessage());  // The chunk size, which the client sends before it waits for the answer.
      }
      const bool refuse = fault == WireFault::RefuseConnect;
      putString(answer, refuse ? "_error" : "_result");
      putNumber(answer, transaction);
      answer.push_back(0x05);
      putInfo(answer, refuse ? "error" : "status",
              refuse ? "NetConnection.Connect.Rejected" : "NetConnection.Connect.Success");
      client.writeMessage(3, 20, 0, answer);
      if (fault == WireFault::ResetAfterConnect) {
        client.reset();
        throw ConnectionOver("as the test wants");
      }
    } else if (name == "createStream") {
      if (fault == WireFault::CloseAfterConnect) {
        throw ConnectionOver("as the test wants");
      }
      if (fault == WireFault::SilentAfterConnect) {
        continue;
      }
      putString(answer, "_result");
      putNumber(answer, transaction);
      answer.push_back(0x05);
      putNumber(answer, 1);
      client.writeMessage(3, 20, 0, answer);
    } else if (name == "publish") {
      const bool refuse = fault == WireFault::RefusePublish;
      putString(answer, "onStatus");
      putNumber(answer, 0);
      answer.push_back(0x05);
      putInfo(answer, refuse ? "error" : "status", refuse ? "NetStream.Publish.BadName" : "NetStream.Publish.Start");
      client.writeMessage(5, 20, 1, answer);
    }
  }
}

void WireServer::add(WireMessage message) {
  const std::lock_guard lock(mutex_);
  messages_.push_back(std::move(message));
  changed_.notify_all();
}

void WireServer::note() {
  const std::lock_guard lock(mutex_);
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
  const std::lock_guard lock(mutex_);
  return commands_;
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

bool WireServer::waitForMedia(std::size_t count, std::chrono::milliseconds limit) {
  return waitUntil([&] { return media().size() >= count; }, limit);
}

void WireServer::ping(std::uint32_t stamp) {
  const std::lock_guard lock(mutex_);
  for (const auto& client : clients_) {
    client->writeMessage(2, 4, 0,
                         {0, 6, static_cast<std::uint8_t>(stamp >> 24), static_cast<std::uint8_t>(stamp >> 16),
                          static_cast<std::uint8_t>(stamp >> 8), static_cast<std::uint8_t>(stamp)});
  }
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
