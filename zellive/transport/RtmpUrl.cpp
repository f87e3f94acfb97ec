#include "zellive/transport/RtmpUrl.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <string_view>

namespace zellive {
namespace {

// The connect command holds the application twice and must fit the 4096 bytes that librtmp gives it.
constexpr std::size_t kLongestUrl = 1792;
constexpr std::size_t kLongestHost = 253;

struct Scheme {
  std::string_view name;
  std::uint16_t port;
  bool tls;
};
constexpr std::array kSchemes{Scheme{"rtmp", 1935, false}, Scheme{"rtmps", 443, true}};

bool isPrintable(char c) { return c > ' ' && c < 0x7F; }

bool hasBadEscape(std::string_view text) {
  for (std::size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%', at + 1)) {
    const auto isHex = [&](std::size_t i) {
      return i < text.size() && std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
    };
    if (!isHex(at + 1) || !isHex(at + 2) || text.substr(at + 1, 2) == "00") {
      return true;
    }
  }
  return false;
}

const Scheme* findScheme(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  const auto* found = std::find_if(kSchemes.begin(), kSchemes.end(), [&](const Scheme& s) { return s.name == lower; });
  return found == kSchemes.end() ? nullptr : found;
}

bool parsePort(std::string_view text, std::uint16_t& port) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port != 0;
}

}  // namespace

std::string parseRtmpUrl(const std::string& text, RtmpUrl& url) {
  constexpr auto npos = std::string_view::npos;
  const std::string_view all = text;
  if (all.empty()) {
    return "the URL is empty";
  }
  if (all.size() > kLongestUrl) {
    return "the URL is longer than " + std::to_string(kLongestUrl) + " characters";
  }
  if (!std::all_of(all.begin(), all.end(), isPrintable)) {
    return "the URL holds a space or a character that is not ASCII";
  }
  const std::size_t colon = all.find("://");
  const Scheme* scheme = colon == npos ? nullptr : findScheme(all.substr(0, colon));
  if (scheme == nullptr) {
    return "the URL does not begin with rtmp:// or rtmps://";
  }
  const std::size_t begin = colon + 3;
  url.path = std::min(all.find_first_of("/?#", begin), all.size());
  std::string_view authority = all.substr(begin, url.path - begin);
  if (authority.find('@') != npos) {
    return "the URL holds a user name, which is not supported";
  }
  const bool bracketed = authority.starts_with('[');
  const std::size_t hostEnd = bracketed ? authority.find(']') : std::min(authority.find(':'), authority.size());
  if (hostEnd == npos) {
    return "the URL's address lacks its closing bracket";
  }
  url.host = authority.substr(bracketed ? 1 : 0, hostEnd - (bracketed ? 1 : 0));
  authority.remove_prefix(hostEnd + (bracketed ? 1 : 0));
  url.port = scheme->port;
  url.tls = scheme->tls;
  if (url.host.empty() || url.host.size() > kLongestHost) {
    return "the URL has no valid host";
  }
  if (!authority.empty() && (!authority.starts_with(':') || !parsePort(authority.substr(1), url.port))) {
    return "the URL's port is not a number from 1 to 65535";
  }
  if (hasBadEscape(all.substr(url.path))) {
    return "the URL holds a % that is not followed by two hexadecimal digits";
  }
  url.forLibrtmp = std::string(scheme->name) + "://" + (bracketed ? "ipv6" : url.host) + std::string(authority);
  url.librtmpPath = url.forLibrtmp.size();
  // A query that follows the stream's name travels as it stands. librtmp would take what follows its last slash for the
  // name, and decode its escapes.
  const std::size_t query = std::min(all.find('?', url.path), all.size());
  const bool named = all.substr(0, query).find('/', url.path + 1) != npos;
  for (std::size_t at = url.path; at < all.size(); ++at) {
    const bool escaped = named && at > query && (all[at] == '/' || all[at] == '%');
    url.forLibrtmp += !escaped ? all.substr(at, 1) : all[at] == '/' ? "%2F" : "%25";
  }
  return {};
}

std::string hostOf(const std::string& text) {
  RtmpUrl url;
  return parseRtmpUrl(text, url).empty() ? url.host : std::string();
}

std::vector<std::string> secretsOf(const std::string& text, const RtmpUrl& url) {
  std::vector<std::string> secrets;
  const std::size_t query = std::min(text.find('?', url.path), text.size());
  if (const std::size_t name = text.rfind('/', query); name != std::string::npos && name > url.path) {
    secrets.push_back(text.substr(name + 1));
    secrets.push_back(text.substr(name + 1, query - name - 1));
  }
  if (query < text.size()) {
    secrets.push_back(text.substr(query + 1));
    secrets.push_back(text.substr(query + 1, text.find('/', query) - query - 1));
  }
  secrets.push_back(text.substr(text.find_last_of('/') + 1));
  return secrets;
}

}  // namespace zellive
