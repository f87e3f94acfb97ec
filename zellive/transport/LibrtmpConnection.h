#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "zellive/transport/AbortSwitch.h"
#include "zellive/transport/LibrtmpInbox.h"
#include "zellive/transport/LibrtmpScope.h"
#include "zellive/transport/RtmpConnection.h"
#include "zellive/transport/RtmpUrl.h"

struct RTMP;
struct RTMPPacket;

namespace zellive {

/// RtmpConnection on stock librtmp, with what a broadcaster needs beyond it: sockets of either address family, a limit
/// on every wait, abort() from any thread, refusals told apart from faults, the server's messages answered while
/// publishing, and header types exactly as asked for.
class LibrtmpConnection : public RtmpConnection {
 public:
  LibrtmpConnection(const RtmpOptions& options, std::shared_ptr<const Platform> platform, std::shared_ptr<Queue> queue);
  ~LibrtmpConnection() override;
  LibrtmpConnection(const LibrtmpConnection&) = delete;
  LibrtmpConnection& operator=(const LibrtmpConnection&) = delete;

  bool setupURL(const std::string& url, RTMPError* error) override;
  void setCallbacks(const RtmpCallbacks& callbacks) override { callbacks_ = callbacks; }
  void enableWrite() override;
  bool connect(RTMPError* error) override;
  [[nodiscard]] std::vector<std::string> hostAddresses() const override { return hostAddresses_; }
  bool connectStream(RTMPError* error) override;
  [[nodiscard]] bool isConnected() const override;
  [[nodiscard]] std::int32_t streamId() const override { return streamId_; }
  std::int32_t sendPacket(const RtmpMessage& message, RTMPError* error) override;
  void close(RTMPError* error) override;
  void abort() override { switch_->throwSwitch(AbortSwitch::State::Aborted); }

 private:
  using Clock = std::chrono::steady_clock;

  void tellRealHost(const std::string& url);
  bool adopt(int socket);
  bool handshake(RTMPError* error);
  bool announceChunkSize();
  bool readUntilPublishing(RTMPError* error);
  bool waitForChunk(RTMPError* error);
  bool handleChunk(RTMPError* error);
  void serve();
  bool handleGathered(RTMPError* error);
  bool gather(RTMPError* error);
  bool answer(RTMPPacket& packet, RTMPError* error);
  /// Fills `error`, unless the switch says that something else is the reason; false.
  bool fail(RTMPError* error, RtmpFailure code, const std::string& message) const;
  /// Closes at once and tells the error callback.
  void breakOff(const RTMPError& error);
  void shut(bool politely);

  const RtmpOptions options_;
  const std::shared_ptr<const Platform> platform_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<AbortSwitch> switch_ = std::make_shared<AbortSwitch>();
  RtmpCallbacks callbacks_;
  RtmpUrl url_;
  std::string tcUrl_;
  std::string streamName_;
  std::vector<std::string> hostAddresses_;
  Secrets secrets_;
  std::unique_ptr<RTMP, void (*)(RTMP*)> rtmp_;
  LibrtmpInbox inbox_;
  std::int32_t streamId_ = 0;
  bool publishing_ = false;
  std::shared_ptr<DelayedWork> setupTimer_;
  std::unique_ptr<ReadWatch> watch_;
};

}  // namespace zellive
