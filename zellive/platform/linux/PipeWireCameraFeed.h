#pragma once

#include <pipewire/pipewire.h>

#include <memory>
#include <optional>
#include <string>

#include "zellive/platform/MediaClock.h"
#include "zellive/platform/linux/Camera.h"
#include "zellive/platform/linux/MjpegDecoder.h"
#include "zellive/platform/linux/PipeWireConnection.h"
#include "zellive/platform/linux/PipeWireFormats.h"

namespace zellive {

/// A stream from a camera of PipeWire's. Each picture is copied or converted once, out of the camera's memory into a
/// recycled one. All but the constructor's and the destructor's callers hold the connection's lock, or are its thread.
class PipeWireCameraFeed {
 public:
  struct Target {
    std::string serial;
    std::vector<CaptureDeviceFormat> formats;
  };

  /// Begins to run the camera; the connection has a core.
  PipeWireCameraFeed(PipeWireConnection& connection, const Target& target, const CameraRequest& request,
                     std::weak_ptr<CameraFeedSink> sink, std::shared_ptr<MediaClock> clock);
  ~PipeWireCameraFeed();
  PipeWireCameraFeed(const PipeWireCameraFeed&) = delete;
  PipeWireCameraFeed& operator=(const PipeWireCameraFeed&) = delete;

 private:
  static const pw_stream_events kEvents;

  void stateChanged(pw_stream_state state, const char* error);
  void formatChanged(const spa_pod* parameter);
  void process();
  void deliver(const spa_buffer& buffer);
  [[nodiscard]] std::optional<RawPicture> pictureIn(const spa_buffer& buffer);
  [[nodiscard]] std::chrono::nanoseconds timeOf(const spa_buffer& buffer) const;
  void fail(std::string reason);

  const CameraRequest request_;
  const std::weak_ptr<CameraFeedSink> sink_;
  const std::shared_ptr<MediaClock> clock_;
  pw_stream* stream_ = nullptr;
  spa_hook hook_{};
  FrameThinner thinner_;
  std::optional<AgreedFormat> format_;
  MjpegDecoder decoder_;
  std::shared_ptr<PixelBufferPool> pool_;
};

}  // namespace zellive
