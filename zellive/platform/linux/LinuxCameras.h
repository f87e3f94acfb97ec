#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zellive/platform/MediaClock.h"
#include "zellive/platform/linux/PipeWireCamera.h"
#include "zellive/platform/linux/PipeWireConnection.h"

namespace zellive {

/// This machine's cameras: those of PipeWire, in the order in which people would rather have them, and then the virtual
/// ones. PipeWire is asked for when somebody first asks for cameras.
class LinuxCameras : public CameraService {
 public:
  LinuxCameras(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<QueueService> queues,
               std::shared_ptr<MediaClock> clock);
  ~LinuxCameras() override;
  LinuxCameras(const LinuxCameras&) = delete;
  LinuxCameras& operator=(const LinuxCameras&) = delete;

  [[nodiscard]] std::vector<std::shared_ptr<CaptureDevice>> devices() const override;
  [[nodiscard]] bool setDeviceAtPosition(CaptureDevicePosition position, std::string_view name) override;
  [[nodiscard]] std::shared_ptr<CaptureSession> makeSession() override;
  [[nodiscard]] bool addVirtualCamera(const VirtualCamera& camera) override;

 private:
  class Registry;
  using Cameras = std::vector<std::shared_ptr<Camera>>;
  [[nodiscard]] Cameras connected() const;
  /// Tells each where it is. With mutex_.
  void place(const Cameras& cameras) const;

  const std::shared_ptr<PipeWireConnection> connection_;
  const std::shared_ptr<QueueService> queues_;
  const std::shared_ptr<MediaClock> clock_;

  mutable std::mutex mutex_;  // Never taken with the connection's lock.
  mutable std::shared_ptr<Registry> registry_;
  Cameras virtual_;
  std::map<CaptureDevicePosition, std::string> named_;  // Unique IDs of cameras that were put somewhere.
};

}  // namespace zellive
