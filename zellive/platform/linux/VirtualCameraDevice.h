#pragma once

#include <memory>
#include <string>
#include <vector>

#include "zellive/platform/MediaClock.h"
#include "zellive/platform/VirtualCamera.h"
#include "zellive/platform/linux/Camera.h"

namespace zellive {

/// Runs a virtual camera: each session has its own pictures, at the session's rate on the media clock. A picture that
/// is made too late is followed by the next one that is due; those between are left out.
class VirtualCameraDevice : public Camera {
 public:
  VirtualCameraDevice(VirtualCamera camera, std::shared_ptr<QueueService> queues, std::shared_ptr<MediaClock> clock);

  [[nodiscard]] std::string uniqueID() const override { return camera_.uniqueID; }
  [[nodiscard]] std::string localizedName() const override { return camera_.localizedName; }
  [[nodiscard]] bool isVirtual() const override { return true; }
  [[nodiscard]] bool isConnected() const override { return true; }
  [[nodiscard]] std::vector<CaptureDeviceFormat> formats() const override { return camera_.formats; }
  [[nodiscard]] CaptureDevicePosition statedPosition() const override { return camera_.position; }
  [[nodiscard]] std::vector<PixelFormat> pixelFormats() const override { return camera_.pixelFormats; }
  [[nodiscard]] std::unique_ptr<CameraFeed> open(const CameraRequest& request,
                                                 std::weak_ptr<CameraFeedSink> sink) override;

 private:
  class Feed;
  const VirtualCamera camera_;
  const std::shared_ptr<QueueService> queues_;
  const std::shared_ptr<MediaClock> clock_;
};

}  // namespace zellive
