#include "apps/zellive/Troubles.h"

#include <utility>

#include "zellive/transport/RtmpConnection.h"
#include "zellive/transport/ZelStreamRtmpSocket.h"

namespace zellive::tool {
namespace {

const char* kindOf(std::int64_t code) {
  switch (code) {
    case RtmpFailureUrl:
      return "url";
    case RtmpFailureResolve:
      return "host_not_found";
    case RtmpFailureConnect:
      return "cannot_connect";
    case RtmpFailureHandshake:
      return "handshake";
    case RtmpFailureRefused:
      return "refused";
    case RtmpFailureTimeout:
      return "no_answer";
    case RtmpFailureSend:
      return "cannot_send";
    case RtmpFailureClosed:
      return "closed";
    case RtmpFailureProtocol:
      return "protocol";
    default:
      return "failed";
  }
}

std::string inSeconds(std::uint64_t seconds) { return std::to_string(seconds) + " s"; }

/// Servers answer with codes; this is what the common one means.
std::string explained(const std::string& words, bool wasConnected) {
  if (words.find("Publish.BadName") == std::string::npos) {
    return words;
  }
  return words + ": its name is in use" + (wasConnected ? ", perhaps still by the connection that was lost" : "");
}

}  // namespace

void Troubles::begin(Duration now) {
  waiting_ = true;
  if (!beginning_) {
    beginning_ = now;
  }
}

std::optional<Trouble> Troubles::connectionFailed(std::int64_t code, const std::string& words, Duration now) {
  const bool first = !beginning_ && wasConnected_;
  begin(now);
  const std::uint64_t retry = attempts_ + 1;
  const bool isNews = lastWords_ != words;
  lastWords_ = words;
  if (!networkIsOut_ && retry >= count_) {
    return std::nullopt;  // This was the last attempt; giving up is told instead.
  }
  Trouble trouble;
  trouble.kind = kindOf(code);
  trouble.reason = explained(words, wasConnected_);
  trouble.text = (first ? "the connection is lost: " : "") + (isNews || first ? trouble.reason : "the same again");
  shownWords_ = words;
  if (networkIsOut_) {
    trouble.text += " (waiting for the network)";
    return trouble;
  }
  trouble.retry = retry;
  trouble.retries = count_ - 1;
  trouble.seconds = interval_;
  trouble.text += " (retry " + std::to_string(retry) + " of " + std::to_string(trouble.retries) + " in " +
                  inSeconds(interval_) + ")";
  return trouble;
}

Trouble Troubles::networkGone(Duration now) {
  begin(now);
  networkIsOut_ = true;
  Trouble trouble;
  trouble.kind = "network_gone";
  trouble.reason = "the network is gone";
  trouble.text = trouble.reason + "; waiting until it is back";
  trouble.code = ZelStreamSocketErrorNetworkUnreachable;
  return trouble;
}

Trouble Troubles::networkChanged(Duration now) {
  begin(now);
  const bool back = std::exchange(networkIsOut_, false);
  Trouble trouble;
  trouble.kind = back ? "network_back" : "network_changed";
  trouble.reason = back ? "the network is back" : "the network has changed";
  trouble.text = trouble.reason + "; connecting again in " + inSeconds(interval_);
  trouble.seconds = interval_;
  return trouble;
}

std::optional<Troubles::Duration> Troubles::connected(Duration now) {
  const auto began = std::exchange(beginning_, std::nullopt);
  attempts_ = 0;
  waiting_ = false;
  networkIsOut_ = false;
  lastWords_.clear();
  shownWords_.clear();
  return std::exchange(wasConnected_, true) && began ? std::optional(now - *began) : std::nullopt;
}

std::string Troubles::whatFailed() const {
  return wasConnected_ ? "the connection to " + url_ + " was lost" : "cannot publish to " + url_;
}

Trouble Troubles::givenUp() const {
  Trouble trouble;
  trouble.kind = "given_up";
  trouble.reason = whatFailed() + ": " + explained(lastWords_, wasConnected_);
  trouble.text = lastWords_ != shownWords_
                     ? trouble.reason
                     : whatFailed() + ": given up, as --reconnect-count is " + std::to_string(count_);
  trouble.code = ZelStreamSocketErrorReconnectExhausted;
  return trouble;
}

std::string Troubles::nothingPublished() const {
  if (wasConnected_ || !hasFailed()) {
    return {};
  }
  return whatFailed() + ": interrupted, and nothing was published" +
         (lastWords_ == shownWords_ ? "" : ": " + lastWords_);
}

}  // namespace zellive::tool
