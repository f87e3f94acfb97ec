#include <benchmark/benchmark.h>

#include <cstring>

#include "bench/SampleFrames.h"
#include "zellive/transport/FlvTagBody.h"

namespace zellive::bench {
namespace {

/// Sizes of a NAL unit: a quiet picture's, a usual one's at 1.5 Mbit/s, a key frame's.
void nalSizes(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("bytes")->Arg(700)->Arg(7800)->Arg(60000);
}

void packVideoBody(benchmark::State& state) {
  ZelLiveVideoFrame frame;
  frame.data = payload(static_cast<std::size_t>(state.range(0)));
  RtmpBody body;
  for ([[maybe_unused]] auto step : state) {
    packVideo(frame, body);
    benchmark::DoNotOptimize(body.bytes().data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(packVideoBody)->Apply(nalSizes);

/// The floor under packVideoBody: the copy alone.
void copyBody(benchmark::State& state) {
  const auto from = noise(static_cast<std::size_t>(state.range(0)));
  std::vector<std::uint8_t> to(from.size());
  for ([[maybe_unused]] auto step : state) {
    std::memcpy(to.data(), from.data(), from.size());
    benchmark::DoNotOptimize(to.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(copyBody)->Apply(nalSizes);

void packAudioBody(benchmark::State& state) {
  ZelLiveAudioFrame frame;
  frame.data = payload(static_cast<std::size_t>(state.range(0)));
  RtmpBody body;
  for ([[maybe_unused]] auto step : state) {
    packAudio(frame, body);
    benchmark::DoNotOptimize(body.bytes().data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(packAudioBody)->ArgName("bytes")->Arg(340);

void packVideoHeaderBody(benchmark::State& state) {
  ZelLiveVideoFrame frame;
  frame.sps = payload(26);
  frame.pps = payload(6);
  RtmpBody body;
  for ([[maybe_unused]] auto step : state) {
    packVideoHeader(frame, body);
    benchmark::DoNotOptimize(body.bytes().data());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(packVideoHeaderBody);

}  // namespace
}  // namespace zellive::bench
