#pragma once

#include "zellive/platform/AudioInput.h"
#include "zellive/platform/CaptureSession.h"

namespace zellive {

/// A machine without cameras.
class NoCameras : public CameraService {
 public:
  [[nodiscard]] std::vector<std::shared_ptr<CaptureDevice>> devices() const override { return {}; }
  [[nodiscard]] bool setDeviceAtPosition(CaptureDevicePosition, std::string_view) override { return false; }
  [[nodiscard]] std::shared_ptr<CaptureSession> makeSession() override { return nullptr; }
};

/// A machine without microphones.
class NoAudioInputs : public AudioInputService {
 public:
  [[nodiscard]] std::vector<AudioInputDescription> devices() const override { return {}; }
  [[nodiscard]] bool setPreferredInput(std::string_view name) override { return name.empty(); }
  [[nodiscard]] std::unique_ptr<AudioInputUnit> makeUnit(const AudioStreamBasicDescription&,
                                                         AudioInputUnit::InputCallback, int& status) override {
    status = -1;
    return nullptr;
  }
};

}  // namespace zellive
