#include <benchmark/benchmark.h>

#include "zellive/platform/Log.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 2;
  }
  zellive::setLogHandler([](zellive::LogLevel, std::string_view, int, std::string_view) {});
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
