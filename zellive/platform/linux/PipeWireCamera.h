#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zellive/platform/MediaClock.h"
#include "zellive/platform/linux/Camera.h"
#include "zellive/platform/linux/PipeWireConnection.h"

struct spa_pod;

namespace zellive {

class PipeWireCameraFeed;

/// A camera of the machine's, for as long as the process lives; connected while there is a node of its name.
class PipeWireCamera : public Camera, public std::enable_shared_from_this<PipeWireCamera> {
 public:
  PipeWireCamera(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<MediaClock> clock,
                 std::string uniqueID);
  ~PipeWireCamera() override;

  [[nodiscard]] std::string uniqueID() const override { return uniqueID_; }
  [[nodiscard]] std::string localizedName() const override;
  [[nodiscard]] bool isVirtual() const override { return false; }
  [[nodiscard]] bool isConnected() const override;
  [[nodiscard]] std::vector<CaptureDeviceFormat> formats() const override;
  [[nodiscard]] std::vector<PixelFormat> pixelFormats() const override;
  [[nodiscard]] CaptureDevicePosition statedPosition() const override;
  [[nodiscard]] bool hasTorch() const override;
  [[nodiscard]] int torchMode() const override;
  void setTorchMode(int mode) override;
  void setVideoZoomFactor(double factor) override;
  [[nodiscard]] std::unique_ptr<CameraFeed> open(const CameraRequest& request,
                                                 std::weak_ptr<CameraFeedSink> sink) override;

  /// Which of several cameras people would rather have.
  [[nodiscard]] int priority() const;

  // With the connection's lock held.
  void appear(const PipeWireObject& object);
  void vanish();
  [[nodiscard]] std::uint32_t nodeId() const { return nodeId_; }

 private:
  class Node;
  class Feed;
  struct Control {
    std::uint32_t id = 0;
    int least = 0;
    int greatest = 0;
  };

  void takeInformation(const PipeWireProperties& properties);
  void takeFormat(bool first, const spa_pod& parameter);
  void takeControl(const spa_pod& parameter);
  void set(const Control& control, int value);

  const std::shared_ptr<PipeWireConnection> connection_;
  const std::shared_ptr<MediaClock> clock_;
  const std::string uniqueID_;

  // Of the connection's lock.
  std::uint32_t nodeId_ = 0;
  std::unique_ptr<Node> node_;
  std::vector<Feed*> feeds_;

  mutable std::mutex mutex_;  // Guards the rest; nothing is called with it.
  bool connected_ = false;
  std::string serial_;
  PipeWireProperties properties_;
  std::vector<CaptureDeviceFormat> formats_;
  std::optional<Control> torch_;
  std::optional<Control> zoom_;
  int torchMode_ = 0;
};

}  // namespace zellive
