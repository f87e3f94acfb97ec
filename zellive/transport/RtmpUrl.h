#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zellive {

/// A push URL, taken apart as far as connecting needs it.
struct RtmpUrl {
  std::string host;  ///< Name or address, without brackets.
  std::uint16_t port = 0;
  bool tls = false;
  /// The same URL in a form that librtmp parses: an IPv6 address, which it cannot read, is replaced by a name.
  std::string forLibrtmp;
  /// Where the path begins in the original and in `forLibrtmp`.
  std::size_t path = 0;
  std::size_t librtmpPath = 0;
};

/// Takes `text` apart; empty when that worked, otherwise what is wrong with it, in words that hold nothing of it.
[[nodiscard]] std::string parseRtmpUrl(const std::string& text, RtmpUrl& url);

/// The host of a push URL; empty where it cannot be taken apart.
[[nodiscard]] std::string hostOf(const std::string& text);

/// The pieces of `text`, taken apart before, that may hold its owner's key: the stream's name and the query. Where the
/// query holds slashes, librtmp divides them otherwise than the owner does, so every reading is among them.
[[nodiscard]] std::vector<std::string> secretsOf(const std::string& text, const RtmpUrl& url);

}  // namespace zellive
