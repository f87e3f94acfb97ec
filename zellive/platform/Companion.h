#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "zellive/platform/Reachability.h"

namespace zellive {

/// A value of a request or response dictionary.
struct QMZValue;
using QMZDictionary = std::map<std::string, QMZValue>;
struct QMZValue {
  std::variant<std::monostate, std::string, double, bool, std::shared_ptr<const QMZDictionary>> value;
};

/// Why a request failed; empty text when it did not.
struct QMZError {
  std::string message;
};

/// Result of a request: an error for the log, a status code (200 = success) and a response, absent when it was not a
/// dictionary. Runs on a thread of the service's, never inside the call that made the request.
using QMZCompletion =
    std::function<void(const QMZError& error, std::uint64_t code, const std::optional<QMZDictionary>& response)>;

/// The live-room operations of an account. None blocks the caller; all are thread-safe.
class QMZAccount {
 public:
  virtual ~QMZAccount() = default;
  virtual void createLiveRoomWithParams(const QMZDictionary& params, QMZCompletion completion) = 0;
  virtual void initLiveRoomIdWithParams(const QMZDictionary& params, QMZCompletion completion) = 0;
  virtual void getLivePushUrlWithRoomId(const std::string& roomId, QMZCompletion completion) = 0;
  virtual void getLivePullUrlWithRoomId(const std::string& roomId, QMZCompletion completion) = 0;
  /// "roomId" and "liveStatus".
  virtual void liveUpdateStatus(const QMZDictionary& status) = 0;
  /// "roomId", "videoFPS", "audioFPS", "bitRate", "width" and "height".
  virtual void livePostData(const QMZDictionary& figures) = 0;
  /// The room id is absent when the caller has none any more.
  virtual void stopLiveWithRoomId(const std::optional<std::string>& roomId) = 0;
};

class QMZLoginManager {
 public:
  virtual ~QMZLoginManager() = default;
  [[nodiscard]] virtual bool hasLogin() const = 0;
  /// Never null.
  [[nodiscard]] virtual std::shared_ptr<QMZAccount> activeAccount() const = 0;
};

/// The companion network framework, which knows rooms and hands out URLs.
class QMZSdwan {
 public:
  virtual ~QMZSdwan() = default;
  /// Never null.
  [[nodiscard]] virtual std::shared_ptr<QMZLoginManager> loginManager() const = 0;
};

/// The companion's word on the network, which is that of the service it is made for.
class QMZNetworkState {
 public:
  /// `service` is not null.
  explicit QMZNetworkState(std::shared_ptr<const AFNetworkReachabilityManager> service)
      : service_(std::move(service)) {}
  [[nodiscard]] bool isReachable() const { return service_->isReachable(); }

 private:
  std::shared_ptr<const AFNetworkReachabilityManager> service_;
};

class Queue;

/// A companion whose account is not logged in and answers every request with an error (code 401), on
/// `answers`; asked for the push URL of no room (an empty id), it has none to tell.
[[nodiscard]] std::shared_ptr<QMZSdwan> makeLoggedOutSdwan(std::shared_ptr<Queue> answers);

}  // namespace zellive
