#pragma once

#include "tests/support/NetworkNamespace.h"

namespace zellive::test {

/// A server's machine and a publisher's, with two cables between them: wired0 at the publisher leads to near0, wwan0 to
/// near1. The server's address is beyond both.
struct TwoMachines {
  static constexpr const char* serverAddress = "203.0.113.7";

  TwoMachines() {
    server.run(
        "ip link add near0 type veth peer name wired0; ip link add near1 type veth peer name wwan0;"
        "ip addr add 203.0.113.7/32 dev lo; ip addr add 192.0.2.1/24 dev near0; ip addr add 198.51.100.1/24 dev near1;"
        "ip link set near0 up; ip link set near1 up;"
        "ip link set wired0 netns " +
        publisher.path() + "; ip link set wwan0 netns " + publisher.path());
    publisher.run(
        "ip addr add 192.0.2.5/24 dev wired0; ip addr add 198.51.100.5/24 dev wwan0;"
        "ip link set wired0 up; ip link set wwan0 up; ip route add default via 192.0.2.1");
  }
  NetworkNamespace server;
  NetworkNamespace publisher;
};

}  // namespace zellive::test
