#include <benchmark/benchmark.h>

#include <memory>

#include "bench/SampleFrames.h"
#include "zellive/audio/ZelLiveAudioPool.h"

namespace zellive::bench {
namespace {

class Receiver : public ZelLiveAudioPoolDelegate {
 public:
  void processedAudioData(ZelLiveAudioPool& /*pool*/, std::span<const std::uint8_t> audioData, double) override {
    benchmark::DoNotOptimize(audioData.data());
  }
};

/// One second of 48 kHz mono in blocks of 1024 samples; "real time" is how many such streams one core could take.
void feedSecond(benchmark::State& state) {
  constexpr std::size_t block = 2048;
  constexpr std::size_t second = 96000;
  const auto pool = ZelLiveAudioPool::create();
  const auto receiver = std::make_shared<Receiver>();
  pool->setDelegate(receiver);
  pool->setDenoiseLevel(state.range(0));
  // Loud enough for the suppressor not to take it for silence and do nothing.
  const auto sound = noise(second);
  double clock = 0;
  for ([[maybe_unused]] auto step : state) {
    for (std::size_t at = 0; at < second; at += block) {
      const auto piece = std::span(sound).subspan(at, std::min(block, second - at));
      clock += static_cast<double>(piece.size()) / 96;
      pool->receiveAudioData(piece, clock);
    }
  }
  state.counters["real time"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(feedSecond)->ArgName("denoise")->Arg(0)->Arg(1)->Arg(3)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zellive::bench
