#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

namespace zellive {

/// Makes the sound of a microphone that exists in software only. Used by one thread at a time, as time passes; nothing
/// waits for it but its own unit.
class VirtualMicrophoneSound {
 public:
  virtual ~VirtualMicrophoneSound() = default;
  /// Fills `samples` (interleaved) with the frames from `position` on. Positions count frames on the media clock: frame
  /// n sounds at n ÷ sample rate seconds. The first is anything, the next ones follow on; a jump is time that was lost
  /// because the machine stood still.
  virtual void render(std::int64_t position, std::span<std::int16_t> samples) = 0;
};

/// A microphone of an application's own, for AudioInputService::addVirtualMicrophone.
struct VirtualMicrophone {
  std::string uniqueID;       ///< No other microphone has it.
  std::string localizedName;  ///< For people.
  std::uint32_t channels = 1;
  double sampleRate = 48000;  ///< Hz; as `channels`, only for people.
  /// Makes the sound in the format that is wanted, each time that a unit starts, on that unit's queue. Null counts as
  /// silence.
  std::function<std::unique_ptr<VirtualMicrophoneSound>(std::uint32_t sampleRate, std::uint32_t channels)> makeSound;
};

/// The beat that virtual devices share, so that sound and picture can be compared: it begins with every second of the
/// media clock.
inline constexpr std::chrono::milliseconds kBeatLength{100};

/// A beep of 1 kHz on each beat, and silence between. "zellive.tone"
[[nodiscard]] VirtualMicrophone toneMicrophone();
/// A voice that says vowels, with pauses, in the noise of a fan: work for noise suppression. "zellive.speech"
[[nodiscard]] VirtualMicrophone speechMicrophone();

}  // namespace zellive
