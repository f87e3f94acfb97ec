#pragma once

#include <pipewire/stream.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zellive/platform/AudioInput.h"
#include "zellive/platform/DeliveryGate.h"
#include "zellive/platform/linux/PipeWireSources.h"

namespace zellive {

/// A stream from one microphone, or from the machine's own choice, for as long as it is wanted: made anew whenever the
/// microphone or the daemon comes back. What keeps it silent is told to people once, and so is that it has ended; the
/// daemon's absence is the connection's to tell. A stream that somebody pauses in the daemon posts the notification of
/// an interruption, and one that is resumed that of its end, also after it was stopped meanwhile.
///
/// Thread-safe; everything may be called from inside the callback.
class PipeWireMicrophoneStream : private PipeWireSources::Listener,
                                 public std::enable_shared_from_this<PipeWireMicrophoneStream> {
 public:
  /// `target` without a name is the machine's own choice.
  PipeWireMicrophoneStream(std::shared_ptr<PipeWireSources> sources, const AudioStreamBasicDescription& format,
                           AudioInputDescription target, AudioInputUnit::InputCallback callback);
  PipeWireMicrophoneStream(const PipeWireMicrophoneStream&) = delete;
  PipeWireMicrophoneStream& operator=(const PipeWireMicrophoneStream&) = delete;

  void start();
  void stop();
  /// stop(), for ever. Has to be called before the end.
  void close();

 private:
  enum class Trouble { None, Gone, NoMicrophone, Failing, Silent };

  void settle();
  void onQueue(void (PipeWireMicrophoneStream::*task)());
  // On the queue.
  void look();
  void noticeResumption();

  // With the connection's lock held, and not in events of the stream.
  void sourcesChanged() override;
  void sourcesLost() override;
  void want(bool wanted);
  void make();
  void drop();
  void lookLater();
  void countLook();
  [[nodiscard]] bool isPausedFromOutside() const;
  void setInterrupted(bool interrupted);
  [[nodiscard]] Trouble trouble() const;
  [[nodiscard]] std::string tidings();
  [[nodiscard]] std::string name() const;

  // Events of the stream.
  static const pw_stream_events kEvents;
  void stateChanged(pw_stream_state state, const char* error);
  void process();
  void deliver(const spa_data& data);

  const std::shared_ptr<PipeWireSources> sources_;
  const AudioStreamBasicDescription format_;
  const AudioInputDescription target_;
  const AudioInputUnit::InputCallback callback_;
  DeliveryGate gate_;  // Open while it is wanted.
  std::atomic<bool> started_{false};
  std::atomic<bool> closed_{false};
  std::atomic<std::uint64_t> blocks_{0};
  std::vector<std::uint8_t> copy_;  // The real-time thread's, for blocks that may not be written to.

  // Guarded by the connection's lock.
  bool listens_ = false;
  bool wanted_ = false;
  bool looking_ = false;
  bool interrupted_ = false;
  pw_stream* stream_ = nullptr;
  spa_hook hook_{};
  pw_stream_state state_ = PW_STREAM_STATE_UNCONNECTED;
  std::string failure_;
  std::uint64_t seenBlocks_ = 0;
  std::string source_;   // Where the last block came from.
  std::string default_;  // The machine's own choice then.
  int quietLooks_ = 0;
  int pausedLooks_ = 0;
  Trouble told_ = Trouble::None;
};

}  // namespace zellive
