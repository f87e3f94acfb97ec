// A PipeWire daemon of its own with a camera plugged in, for `scripts/bench camera`. Says where the daemon is and runs
// until its standard input ends.
// Usage: zellive_bench_devices CAMERA WIDTH HEIGHT FPS PATTERN
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "tests/support/PipeWireDaemon.h"

int main(int argc, char** argv) {
  using namespace zellive::test;
  if (argc != 6) {
    std::fprintf(stderr, "usage: %s CAMERA WIDTH HEIGHT FPS PATTERN\n", argv[0]);
    return 2;
  }
  try {
    const PipeWireDaemon daemon;
    PipeWireDaemon::Camera camera;
    camera.name = argv[1];
    camera.width = std::atoi(argv[2]);
    camera.height = std::atoi(argv[3]);
    camera.frameRate = std::atoi(argv[4]);
    camera.pattern = argv[5];
    const auto plugged = PipeWireDaemon::plugIn(camera);
    std::printf("%s\n", std::getenv("XDG_RUNTIME_DIR"));
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
