#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zellive/transport/RtmpConnection.h"

namespace zellive::test {

/// Stands in for RTMP connections: does what its fields say, keeps what was sent on any of them. For tests whose queues
/// all run on one thread.
class FakeRtmp {
 public:
  struct Sent {
    std::uint8_t headerType, type;
    std::int32_t channel;
    std::uint32_t timestamp;
    bool absolute;
    std::int32_t streamId;
    std::vector<std::uint8_t> body;
  };

  std::string failAt;           ///< "RTMP_SetupURL", "RTMP_Connect" or "RTMP_ConnectStream"; empty: all succeed.
  std::int32_t sendResult = 1;  ///< Of each message.
  std::vector<Sent> sent;
  std::vector<std::string> urls;
  std::vector<RtmpOptions> options;
  int closed = 0;
  int aborted = 0;

  /// Refers to this object, which must outlive the connections.
  [[nodiscard]] RtmpConnectionFactory factory() {
    return [this](const RtmpOptions& limits, const std::shared_ptr<const Platform>&, const std::shared_ptr<Queue>&) {
      options.push_back(limits);
      auto connection = std::make_unique<Connection>(*this);
      latest_ = connection.get();
      return connection;
    };
  }
  /// The latest connection finds itself broken between two calls.
  void breakConnection(const RTMPError& error) { latest_->breakOff(error); }
  /// Messages of audio and video.
  [[nodiscard]] std::vector<Sent> media() const {
    auto all = sent;
    std::erase_if(all, [](const Sent& message) { return message.type != 8 && message.type != 9; });
    return all;
  }

 private:
  class Connection : public RtmpConnection {
   public:
    explicit Connection(FakeRtmp& script) : script_(script) {}

    bool setupURL(const std::string& url, RTMPError* error) override {
      script_.urls.push_back(url);
      return step("RTMP_SetupURL", error);
    }
    void setCallbacks(const RtmpCallbacks& callbacks) override { callbacks_ = callbacks; }
    void enableWrite() override { write_ = true; }
    bool connect(RTMPError* error) override { return step("RTMP_Connect", error); }
    bool connectStream(RTMPError* error) override {
      connected_ = write_ && step("RTMP_ConnectStream", error);
      return connected_;
    }
    [[nodiscard]] bool isConnected() const override { return connected_; }
    [[nodiscard]] std::int32_t streamId() const override { return 7; }
    std::int32_t sendPacket(const RtmpMessage& message, RTMPError* error) override {
      script_.sent.push_back({message.headerType,
                              message.type,
                              message.channel,
                              message.timestamp,
                              message.absoluteTimestamp,
                              message.streamId,
                              {message.body.begin(), message.body.end()}});
      if (script_.sendResult != 1) {
        *error = {-7, "scripted"};
        breakOff(*error);
      }
      return script_.sendResult;
    }
    void close(RTMPError* error) override {
      ++script_.closed;
      breakOff(*error);
    }
    void abort() override {
      ++script_.aborted;
      abortedSelf_ = true;
    }
    void breakOff(const RTMPError& error) {
      connected_ = false;
      if (callbacks_.error != nullptr) {
        callbacks_.error(error, callbacks_.userData);
      }
    }

   private:
    bool step(const char* name, RTMPError* error) {
      if (abortedSelf_ || script_.failAt == name) {
        *error = {-3, "scripted"};
        return false;
      }
      return true;
    }

    FakeRtmp& script_;
    RtmpCallbacks callbacks_;
    bool write_ = false;
    bool connected_ = false;
    bool abortedSelf_ = false;
  };

  Connection* latest_ = nullptr;
};

}  // namespace zellive::test
