#include <benchmark/benchmark.h>

#include <memory>

#include "bench/SampleFrames.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"
#include "zellive/transport/ZelStreamingBuffer.h"

namespace zellive::bench {
namespace {

constexpr std::int64_t kMaxCount = -1;

std::shared_ptr<ZelStreamingBuffer> makeBuffer() {
  return ZelStreamingBuffer::create(ZelLiveAudioConfiguration::defaultConfiguration(),
                                    ZelLiveVideoConfiguration::defaultConfiguration());
}

void fill(ZelStreamingBuffer& buffer, FrameMaker& frames, std::size_t depth) {
  while (buffer.count() < depth) {
    buffer.appendObject(frames.next());
  }
}

/// What a frame costs before it reaches the buffer; part of the times below.
void makeFrame(benchmark::State& state) {
  FrameMaker frames;
  for ([[maybe_unused]] auto step : state) {
    benchmark::DoNotOptimize(frames.next());
  }
}
BENCHMARK(makeFrame);

/// One frame in and one out, at a steady number of queued frames.
void appendAndPop(benchmark::State& state) {
  const auto buffer = makeBuffer();
  FrameMaker frames;
  const auto depth = state.range(0) == kMaxCount ? buffer->maxCount() - 1 : static_cast<std::uint64_t>(state.range(0));
  fill(*buffer, frames, depth);
  for ([[maybe_unused]] auto step : state) {
    buffer->appendObject(frames.next());
    benchmark::DoNotOptimize(buffer->popFirstObject());
  }
  state.counters["depth"] = static_cast<double>(buffer->count());
}
BENCHMARK(appendAndPop)->ArgName("depth")->Arg(5)->Arg(1000)->Arg(kMaxCount);

/// A network that takes nothing: the queue stands at its limit and drops, group by group.
void appendToFull(benchmark::State& state) {
  const auto buffer = makeBuffer();
  FrameMaker frames;
  fill(*buffer, frames, buffer->maxCount());
  for ([[maybe_unused]] auto step : state) {
    buffer->appendObject(frames.next());
  }
  state.counters["depth"] = static_cast<double>(buffer->count());
  state.counters["dropped"] = static_cast<double>(buffer->lastDropFrames());
}
BENCHMARK(appendToFull);

}  // namespace
}  // namespace zellive::bench
