#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "zellive/transport/RtmpConnection.h"

namespace zellive::test {

/// Writes down what real connections send. Thread-safe.
class Tap {
 public:
  using Clock = std::chrono::steady_clock;
  struct Message {
    int connection;  ///< Counted from 1; those that opened no stream count too.
    Clock::time_point opened;
    Clock::time_point sent;
    std::uint8_t type;
    bool header;  ///< A sequence header.
    std::uint32_t timestamp;
  };

  /// Makes connections with these limits that tell the tap, which must be kept by a pointer.
  [[nodiscard]] static RtmpConnectionFactory factory(std::shared_ptr<Tap> tap, const RtmpOptions& limits) {
    return [tap = std::move(tap), limits](const RtmpOptions&, const auto& platform, const auto& queue) {
      return std::make_unique<Connection>(tap, makeLibrtmpConnection(limits, platform, queue));
    };
  }
  /// What was sent since the last call.
  [[nodiscard]] std::vector<Message> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(messages_, {});
  }

 private:
  class Connection : public RtmpConnection {
   public:
    Connection(std::shared_ptr<Tap> tap, std::unique_ptr<RtmpConnection> real)
        : tap_(std::move(tap)), real_(std::move(real)) {
      const std::lock_guard lock(tap_->mutex_);
      number_ = ++tap_->connections_;
    }
    bool setupURL(const std::string& url, RTMPError* error) override { return real_->setupURL(url, error); }
    void setCallbacks(const RtmpCallbacks& callbacks) override { real_->setCallbacks(callbacks); }
    void enableWrite() override { real_->enableWrite(); }
    bool connect(RTMPError* error) override { return real_->connect(error); }
    bool connectStream(RTMPError* error) override {
      const bool open = real_->connectStream(error);
      opened_ = Clock::now();
      return open;
    }
    [[nodiscard]] bool isConnected() const override { return real_->isConnected(); }
    [[nodiscard]] std::vector<std::string> hostAddresses() const override { return real_->hostAddresses(); }
    [[nodiscard]] std::int32_t streamId() const override { return real_->streamId(); }
    std::int32_t sendPacket(const RtmpMessage& message, RTMPError* error) override {
      const Message note{
          number_, opened_, Clock::now(), message.type, message.body[1] == 0 && message.type != 18, message.timestamp};
      const auto result = real_->sendPacket(message, error);
      if (result == 1) {
        const std::lock_guard lock(tap_->mutex_);
        tap_->messages_.push_back(note);
      }
      return result;
    }
    void close(RTMPError* error) override { real_->close(error); }
    void abort() override { real_->abort(); }

   private:
    const std::shared_ptr<Tap> tap_;
    const std::unique_ptr<RtmpConnection> real_;
    int number_ = 0;
    Clock::time_point opened_;
  };

  std::mutex mutex_;
  std::vector<Message> messages_;
  int connections_ = 0;
};

}  // namespace zellive::test
