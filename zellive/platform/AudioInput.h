#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zellive/platform/AudioConverter.h"

namespace zellive {

/// Names of the notifications that the audio input service posts, on its own thread.
namespace notification {
/// The way of the sound has changed; user information AudioRouteChangeReason.
inline constexpr const char* AudioRouteChange = "AVAudioSessionRouteChangeNotification";
/// Somebody has taken the microphone (1), or has given it back (0); user information AudioInterruptionType.
inline constexpr const char* AudioInterruption = "AVAudioSessionInterruptionNotification";
}  // namespace notification

inline constexpr const char* kAudioRouteChangeReasonKey = "AVAudioSessionRouteChangeReasonKey";
inline constexpr const char* kAudioInterruptionTypeKey = "AVAudioSessionInterruptionTypeKey";

/// A stream from a microphone. Made stopped. Destroying it stops it: no call of its callback runs afterwards, unless
/// the callback itself destroys it. Thread-safe.
class AudioInputUnit {
 public:
  /// One block of interleaved samples in the unit's memory, which the callee may write to; on the unit's real-time
  /// thread, which nothing may block. `status` is 0, or an error with an empty block.
  using InputCallback = std::function<void(int status, std::span<std::uint8_t> block)>;

  virtual ~AudioInputUnit() = default;
  /// 0, or an error. A microphone that vanishes while the unit runs is waited for and taken up again.
  virtual int start() = 0;
  /// No block comes after it returns; a callback that calls it is not waited for.
  virtual int stop() = 0;
};

/// A microphone, as people and programs name it.
struct AudioInputDescription {
  std::string uniqueID;
  std::string localizedName;
  std::uint32_t channels = 0;
  double sampleRate = 0;  ///< Hz; 0 when the microphone does not say.
  bool isVirtual = false;
};

struct VirtualMicrophone;

/// The machine's microphones. Thread-safe.
class AudioInputService {
 public:
  virtual ~AudioInputService() = default;

  /// Those connected at present, real ones first.
  [[nodiscard]] virtual std::vector<AudioInputDescription> devices() const = 0;
  /// Units made from now on take the microphone of this name or unique ID; empty for the machine's own choice. False,
  /// without effect, when there is no such microphone.
  [[nodiscard]] virtual bool setPreferredInput(std::string_view name) = 0;
  /// From now on the application's own microphone is among the virtual ones. False when its unique ID is taken or
  /// empty, when nothing makes its sound, or where there can be none.
  [[nodiscard]] virtual bool addVirtualMicrophone(const VirtualMicrophone& /*microphone*/) { return false; }
  /// A unit that delivers `format`, converted where the microphone has another. Null with `status` set to an error
  /// (never 0) for a format that is not linear PCM of 16 bits, or where the machine has no sound.
  [[nodiscard]] virtual std::unique_ptr<AudioInputUnit> makeUnit(const AudioStreamBasicDescription& format,
                                                                 AudioInputUnit::InputCallback callback,
                                                                 int& status) = 0;
};

}  // namespace zellive
