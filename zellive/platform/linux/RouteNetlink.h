#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zellive/platform/linux/NetworkPaths.h"

struct mnl_socket;
struct nlmsghdr;

namespace zellive {

/// Where the state of the network comes from. Of one thread at a time.
class NetworkSource {
 public:
  virtual ~NetworkSource() = default;
  /// Readable when something has changed.
  [[nodiscard]] virtual int descriptor() const = 0;
  /// Takes the news; whether there was any. What it says does not matter, as read() tells how things stand.
  virtual bool takeNews() = 0;
  /// The network as it is; nothing where the kernel does not tell.
  [[nodiscard]] virtual std::optional<NetworkSnapshot> read() = 0;
};

/// The kernel's, over rtnetlink, of the network namespace of the thread that opens it. Needs no privileges.
class RouteNetlink : public NetworkSource {
 public:
  /// Null, with `failure` set, where the kernel or a sandbox refuses.
  [[nodiscard]] static std::unique_ptr<RouteNetlink> open(std::string& failure);

  [[nodiscard]] int descriptor() const override;
  bool takeNews() override;
  [[nodiscard]] std::optional<NetworkSnapshot> read() override;

 private:
  using Socket = std::unique_ptr<mnl_socket, int (*)(mnl_socket*)>;
  enum class Dump { Complete, Torn, Failed };

  RouteNetlink(Socket news, Socket questions);
  [[nodiscard]] Dump readOnce(NetworkSnapshot& network);
  [[nodiscard]] Dump dump(std::uint16_t type, const std::function<void(const nlmsghdr&)>& take);

  const Socket news_;
  const Socket questions_;
  std::vector<char> buffer_;
  std::uint32_t sequence_ = 0;
};

}  // namespace zellive
