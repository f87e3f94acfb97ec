#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace zellive::tool {

/// Something that a person should know about the connection: what is wrong, and what is being done about it.
struct Trouble {
  std::string kind;           ///< For programs: "refused", "host_not_found" …
  std::string reason;         ///< What is wrong.
  std::string text;           ///< The same as a sentence for people, who have read the last one.
  std::uint64_t code = 0;     ///< The library's error code, where there is one.
  std::uint64_t retry = 0;    ///< The number of the attempt that follows; 0: none is planned.
  std::uint64_t retries = 0;  ///< Attempts before the stream is given up.
  std::uint64_t seconds = 0;  ///< Until that attempt.
};

/// Follows a connection and puts its troubles into words; those that are no news are left out. Time is an argument.
class Troubles {
 public:
  using Duration = std::chrono::nanoseconds;

  /// `url` is shown as it is. An attempt follows each failure after `interval` seconds, until `count` have failed.
  Troubles(std::string url, std::uint64_t interval, std::uint64_t count)
      : url_(std::move(url)), interval_(interval), count_(count) {}

  /// A connection failed or could not be made: an RtmpFailure, and the library's words for it.
  [[nodiscard]] std::optional<Trouble> connectionFailed(std::int64_t code, const std::string& words, Duration now);
  /// The library waits for the network rather than for the next attempt.
  void networkIsOut() { networkIsOut_ = true; }
  [[nodiscard]] Trouble networkGone(Duration now);
  /// The network is back, or is another.
  [[nodiscard]] Trouble networkChanged(Duration now);
  /// A new attempt begins.
  void attemptBegins() {
    ++attempts_;
    waiting_ = false;
  }
  /// The stream is up; how long it was not, where it had been up before.
  [[nodiscard]] std::optional<Duration> connected(Duration now);
  /// Whether something is wrong and no attempt to mend it is under way.
  [[nodiscard]] bool isWaiting() const { return waiting_; }
  /// Whether the stream was up and is not now.
  [[nodiscard]] bool isDown() const { return wasConnected_ && beginning_; }
  /// Whether a connection has failed since the last good one; a change of the network is no failure.
  [[nodiscard]] bool hasFailed() const { return !lastWords_.empty(); }
  /// The attempts have failed as often as they may.
  [[nodiscard]] Trouble givenUp() const;
  /// Why nothing has been published; empty while there is hope.
  [[nodiscard]] std::string nothingPublished() const;

 private:
  [[nodiscard]] std::string whatFailed() const;
  void begin(Duration now);

  const std::string url_;
  const std::uint64_t interval_;
  const std::uint64_t count_;
  bool wasConnected_ = false;
  bool networkIsOut_ = false;
  bool waiting_ = false;
  std::uint64_t attempts_ = 0;         // Since the last good connection, its own not counted.
  std::optional<Duration> beginning_;  // Of the present trouble.
  std::string lastWords_;              // Of the last failure.
  std::string shownWords_;             // Of the last failure that was shown.
};

}  // namespace zellive::tool
