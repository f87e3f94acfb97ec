#pragma once

#include <sstream>
#include <stdexcept>
#include <string>

#include "zellive/platform/linux/RouteNetlink.h"

namespace zellive::test {

inline IpAddress ip(const std::string& text) { return IpAddress::parse(text).value(); }

/// A network in words, its items parted by semicolons:
///   link NUMBER [down] [still] [lo] [wwan]       up and running unless it says otherwise
///   own NUMBER ADDRESS [tentative]
///   route PREFIX/LENGTH [via ADDRESS] [dev NUMBER] [src ADDRESS] [metric NUMBER] [policy] [refuses]
/// Link 1 is always there, and is the loopback.
inline NetworkSnapshot network(const std::string& text) {
  NetworkSnapshot result;
  std::istringstream items("link 1 lo; own 1 127.0.0.1; own 1 ::1;" + text);
  for (std::string item; std::getline(items, item, ';');) {
    std::istringstream words(item);
    std::string kind;
    std::string word;
    int number = 0;
    words >> kind;
    if (kind == "link") {
      words >> number;
      const auto says = [&](const char* flag) { return item.find(flag) != std::string::npos; };
      result.links.push_back({number, !says("down"), !says("down") && !says("still"), says("lo"), says("wwan")});
    } else if (kind == "own") {
      words >> number >> word;
      result.addresses.push_back({number, ip(word), item.find("tentative") == std::string::npos});
    } else if (kind == "route") {
      NetworkRoute route;
      std::getline(words >> std::ws, word, '/');
      route.destination = ip(word);
      words >> route.prefixLength;
      while (words >> kind) {
        if (kind == "dev") {
          words >> route.link;
        } else if (kind == "metric") {
          words >> route.metric;
        } else if (kind == "via" || kind == "src") {
          words >> word;
          (kind == "via" ? route.gateway : route.source) = ip(word);
        } else {
          (kind == "policy" ? route.policy : route.refuses) = true;
        }
      }
      result.routes.push_back(route);
    } else if (!kind.empty()) {
      throw std::invalid_argument(item);
    }
  }
  return result;
}

/// A network that a test changes.
struct FakeNetwork {
  NetworkSnapshot now;
  bool readable = true;
  int reads = 0;
};

class FakeNetworkSource : public NetworkSource {
 public:
  explicit FakeNetworkSource(FakeNetwork& fake) : network_(fake) {}
  [[nodiscard]] int descriptor() const override { return -1; }
  bool takeNews() override { return true; }
  [[nodiscard]] std::optional<NetworkSnapshot> read() override {
    ++network_.reads;
    return network_.readable ? std::optional(network_.now) : std::nullopt;
  }

 private:
  FakeNetwork& network_;
};

}  // namespace zellive::test
