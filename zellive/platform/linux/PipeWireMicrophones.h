#pragma once

#include <memory>
#include <string>

#include "zellive/platform/AudioInput.h"
#include "zellive/platform/linux/PipeWireSources.h"

namespace zellive {

/// The microphones of a PipeWire daemon: nodes that are audio sources. Monitors of loudspeakers are none.
///
/// Units exist without a daemon and without a microphone, and take up what comes. One that was made with a preferred
/// input waits for that one; the others go along with the session manager's choice. Neither questions nor making units
/// in a unit's callback.
class PipeWireMicrophones : public AudioInputService {
 public:
  explicit PipeWireMicrophones(std::shared_ptr<PipeWireSources> sources);

  [[nodiscard]] std::vector<AudioInputDescription> devices() const override { return sources_->list(); }
  [[nodiscard]] bool setPreferredInput(std::string_view name) override;
  [[nodiscard]] std::unique_ptr<AudioInputUnit> makeUnit(const AudioStreamBasicDescription& format,
                                                         AudioInputUnit::InputCallback callback, int& status) override;

 private:
  const std::shared_ptr<PipeWireSources> sources_;
  std::mutex mutex_;
  AudioInputDescription preferred_;  // Without a name: none.
};

}  // namespace zellive
