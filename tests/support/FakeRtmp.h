#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zellive/transport/RtmpConnection.h"

namespace zellive::test {

/// Stands in for RTMP connections: does what its fields say, keeps what was sent on any of them. For tests whose queues
/// all run on one thread.
class FakeRtmp {
 public:
  struct Sent : RtmpMessage {
    std::vector<std::uint8_t> body;  ///< In place of the span, which ends with the call.
  };

  std::string failAt;           ///< "RTMP_SetupURL", "RTMP_Connect" or "RTMP_ConnectStream"; empty: all succeed.
  std::int32_t sendResult = 1;  ///< Of each message.
  std::vector<Sent> media;      ///< Messages of audio and video.
  std::vector<std::string> urls;
  std::vector<std::string> hostAddresses;
  int closed = 0;
  int aborted = 0;

  /// Refers to this object, which must outlive the connections.
  [[nodiscard]] RtmpConnectionFactory factory() {
    return [this](const RtmpOptions&, const auto&, const auto&) {
      auto connection = std::make_unique<Connection>(*this);
      latest_ = connection.get();
      return connection;
    };
  }
  /// The latest connection finds itself broken between two calls.
  void breakConnection(const RTMPError& error) { latest_->breakOff(error); }

 private:
  struct Connection : RtmpConnection {
    explicit Connection(FakeRtmp& owner) : script(owner) {}

    bool setupURL(const std::string& url, RTMPError* error) override {
      script.urls.push_back(url);
      return step("RTMP_SetupURL", error);
    }
    void setCallbacks(const RtmpCallbacks& given) override { callbacks = given; }
    void enableWrite() override { write = true; }
    bool connect(RTMPError* error) override { return step("RTMP_Connect", error); }
    [[nodiscard]] std::vector<std::string> hostAddresses() const override { return script.hostAddresses; }
    bool connectStream(RTMPError* error) override { return connected = write && step("RTMP_ConnectStream", error); }
    [[nodiscard]] bool isConnected() const override { return connected; }
    [[nodiscard]] std::int32_t streamId() const override { return 7; }
    std::int32_t sendPacket(const RtmpMessage& message, RTMPError* error) override {
      if (message.type != 18) {
        script.media.push_back({message, {message.body.begin(), message.body.end()}});
      }
      if (script.sendResult != 1) {
        breakOff(*error = {RtmpFailureSend, "scripted"});
      }
      return script.sendResult;
    }
    void close(RTMPError* error) override {
      ++script.closed;
      breakOff(*error);
    }
    void abort() override { givenUp = ++script.aborted > 0; }
    void breakOff(const RTMPError& error) {
      connected = false;
      callbacks.error(error, callbacks.userData);
    }
    bool step(const char* name, RTMPError* error) const {
      const bool fails = givenUp || script.failAt == name;
      *error = fails ? RTMPError{RtmpFailureConnect, "scripted"} : *error;
      return !fails;
    }

    FakeRtmp& script;
    RtmpCallbacks callbacks;
    bool write = false, connected = false, givenUp = false;
  };

  Connection* latest_ = nullptr;
};

}  // namespace zellive::test
