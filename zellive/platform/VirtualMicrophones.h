#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zellive/platform/AudioInput.h"
#include "zellive/platform/MediaClock.h"
#include "zellive/platform/Queue.h"
#include "zellive/platform/VirtualMicrophone.h"

namespace zellive {

/// The machine's microphones and virtual ones behind them. The latter are used by name only; their units deliver 10 ms
/// at a time on a queue of their own, in step with the media clock: late blocks are caught up with, up to a second of
/// them.
class VirtualMicrophones : public AudioInputService {
 public:
  VirtualMicrophones(std::shared_ptr<AudioInputService> real, std::shared_ptr<QueueService> queues,
                     std::shared_ptr<MediaClock> clock);

  [[nodiscard]] std::vector<AudioInputDescription> devices() const override;
  [[nodiscard]] bool setPreferredInput(std::string_view name) override;
  [[nodiscard]] bool addVirtualMicrophone(const VirtualMicrophone& microphone) override;
  [[nodiscard]] std::unique_ptr<AudioInputUnit> makeUnit(const AudioStreamBasicDescription& format,
                                                         AudioInputUnit::InputCallback callback, int& status) override;

 private:
  using Entry = std::shared_ptr<const VirtualMicrophone>;

  [[nodiscard]] Entry find(std::string_view name) const;

  const std::shared_ptr<AudioInputService> real_;
  const std::shared_ptr<QueueService> queues_;
  const std::shared_ptr<MediaClock> clock_;

  mutable std::mutex mutex_;
  std::vector<Entry> virtual_;
  Entry preferred_;  // Null: a real one.
};

}  // namespace zellive
