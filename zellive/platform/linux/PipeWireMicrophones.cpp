#include "zellive/platform/linux/PipeWireMicrophones.h"

#include <algorithm>
#include <utility>

#include "zellive/platform/PcmFormat.h"
#include "zellive/platform/linux/PipeWireMicrophoneStream.h"

namespace zellive {
namespace {

/// The stream goes on a little after its owner: neither a callback under way nor whoever is inside one waits for it.
class PipeWireMicrophone : public AudioInputUnit {
 public:
  explicit PipeWireMicrophone(std::shared_ptr<PipeWireMicrophoneStream> stream) : stream_(std::move(stream)) {}
  ~PipeWireMicrophone() override { stream_->close(); }
  PipeWireMicrophone(const PipeWireMicrophone&) = delete;
  PipeWireMicrophone& operator=(const PipeWireMicrophone&) = delete;
  int start() override {
    stream_->start();
    return 0;
  }
  int stop() override {
    stream_->stop();
    return 0;
  }

 private:
  const std::shared_ptr<PipeWireMicrophoneStream> stream_;
};

}  // namespace

PipeWireMicrophones::PipeWireMicrophones(std::shared_ptr<PipeWireSources> sources) : sources_(std::move(sources)) {}

bool PipeWireMicrophones::setPreferredInput(std::string_view name) {
  AudioInputDescription chosen;
  if (!name.empty()) {
    const auto present = sources_->list();
    auto found = std::ranges::find(present, name, &AudioInputDescription::uniqueID);
    if (found == present.end()) {
      found = std::ranges::find(present, name, &AudioInputDescription::localizedName);
    }
    if (found == present.end()) {
      return false;
    }
    chosen = *found;
  }
  const std::lock_guard lock(mutex_);
  preferred_ = std::move(chosen);
  return true;
}

std::unique_ptr<AudioInputUnit> PipeWireMicrophones::makeUnit(const AudioStreamBasicDescription& format,
                                                              AudioInputUnit::InputCallback callback, int& status) {
  status = isSixteenBitPcm(format) && callback ? 0 : kUnsupportedAudioFormat;
  if (status != 0) {
    return nullptr;
  }
  const std::lock_guard lock(mutex_);
  return std::make_unique<PipeWireMicrophone>(
      std::make_shared<PipeWireMicrophoneStream>(sources_, format, preferred_, std::move(callback)));
}

}  // namespace zellive
