#include "zellive/audio/ZelLiveRnnoiseFilter.h"

#include <rnnoise.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

constexpr std::size_t kFrameSamples = 480;
constexpr std::size_t kFrameBytes = kFrameSamples * sizeof(std::int16_t);
constexpr int kMaximumAttenuation = 1;

// RNNoise makes tables for all its states during the first frame, without a lock.
void makeSharedTables() {
  static const bool made = [] {
    std::array<float, kFrameSamples> silence{};
    DenoiseState* state = rnnoise_create(nullptr);
    rnnoise_process_frame(state, silence.data(), silence.data());
    rnnoise_destroy(state);
    return true;
  }();
  (void)made;
}

std::int16_t truncated(float sample) {
  if (!(std::abs(sample) < 2147483648.0F)) {
    return 0;
  }
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(static_cast<std::int32_t>(sample)));
}

float processFrame(DenoiseState* state, std::uint8_t* bytes) {
  std::array<std::int16_t, kFrameSamples> samples;
  std::array<float, kFrameSamples> frame;
  std::memcpy(samples.data(), bytes, kFrameBytes);
  std::copy(samples.begin(), samples.end(), frame.begin());
  const float vad = rnnoise_process_frame(state, frame.data(), frame.data());
  std::transform(frame.begin(), frame.end(), samples.begin(), truncated);
  std::memcpy(bytes, samples.data(), kFrameBytes);
  return vad;
}

}  // namespace

void ZelLiveRnnoiseFilter::Destroy::operator()(DenoiseState* state) const noexcept { rnnoise_destroy(state); }

ZelLiveRnnoiseFilter::ZelLiveRnnoiseFilter() {
  makeSharedTables();
  // The new state is clear: another rnnoise_init would only lose the network's memory that it allocates.
  st_.reset(rnnoise_create(nullptr));
}

void ZelLiveRnnoiseFilter::setDenoiseLevel(std::uint32_t level) {
  if (level > 3) {
    return;
  }
  level_ = level;
  rnnoise_set_param(st_.get(), kMaximumAttenuation, static_cast<float>(std::pow(10.0, -static_cast<double>(level))));
}

void ZelLiveRnnoiseFilter::processAudio(std::span<std::uint8_t> bytes) {
  if (level_ == 0) {
    vadRatio_ = 1.0F;
    return;
  }
  const std::size_t frames = bytes.size() / kFrameBytes;
  // Counted in samples, so that a stray byte behind the last frame does no harm.
  if (frames * kFrameSamples != bytes.size() / sizeof(std::int16_t)) {
    ZEL_LOG_INFO("Live: rnnoise 不能处理的size: %d", static_cast<int>(bytes.size()));
    return;
  }
  for (std::size_t i = 0; i < frames; ++i) {
    vadRatio_ = processFrame(st_.get(), bytes.data() + i * kFrameBytes);
  }
}

}  // namespace zellive
