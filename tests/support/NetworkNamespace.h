#pragma once

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

#include "tests/support/Process.h"
#include "zellive/platform/linux/Descriptor.h"

namespace zellive::test {

/// A network of its own. It has no name, and is gone when this object and every program in it are, however they end.
class NetworkNamespace {
 public:
  /// The calling thread, and what it starts, is inside while this lives.
  class Stay {
   public:
    explicit Stay(const NetworkNamespace& inside) { setns(inside.descriptor_.get(), CLONE_NEWNET); }
    ~Stay() { setns(home_.get(), CLONE_NEWNET); }
    Stay(const Stay&) = delete;
    Stay& operator=(const Stay&) = delete;

   private:
    const Descriptor home_ = present();
  };

  /// Throws std::runtime_error with what is missing where this process may not make one.
  NetworkNamespace() {
    const Descriptor home = present();
    if (unshare(CLONE_NEWNET) != 0) {
      throw std::runtime_error(std::string("a network namespace cannot be made (it takes root, or CAP_SYS_ADMIN): ") +
                               std::strerror(errno));
    }
    descriptor_ = present();
    setns(home.get(), CLONE_NEWNET);
    run("ip link set lo up");
  }

  /// Runs shell commands inside. Throws std::runtime_error when one fails.
  void run(const std::string& commands) const {
    const Stay stay(*this);
    if (const auto run = runProgram({"sh", "-ec", commands}); run.status != 0) {
      throw std::runtime_error(commands + ": " + run.errors);
    }
  }
  /// For commands outside that put a link in here: `ip link set NAME netns PATH`.
  [[nodiscard]] std::string path() const {
    return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(descriptor_.get());
  }

 private:
  static Descriptor present() { return Descriptor(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)); }
  Descriptor descriptor_;
};

}  // namespace zellive::test
