#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zellive/platform/CaptureSession.h"
#include "zellive/platform/PixelBuffer.h"

namespace zellive {

/// Makes the pictures of a camera that exists in software only. Used by one thread at a time, on a queue of the
/// session that runs the camera; the next picture is asked for when it is due, and not before this one is made.
class VirtualCameraPictures {
 public:
  virtual ~VirtualCameraPictures() = default;
  /// The picture `time` after the session has begun to run the camera; null for none this time. Of any format and size:
  /// what is neither of the format nor bi-planar at all is converted, and sizes are taken as they come. Nobody may
  /// write to it afterwards.
  [[nodiscard]] virtual std::shared_ptr<PixelBuffer> pictureAt(std::chrono::nanoseconds time, PixelFormat format,
                                                               std::size_t width, std::size_t height) = 0;
};

/// A camera of an application's own, for CameraService::addVirtualCamera.
struct VirtualCamera {
  std::string uniqueID;       ///< No other camera has it.
  std::string localizedName;  ///< For people.
  /// Where it counts as being. Unspecified: it is used by its name only, or where setDeviceAtPosition puts it.
  CaptureDevicePosition position = CaptureDevicePositionUnspecified;
  /// At least one. Sessions take the one of the size nearest to what they want, at the rate that they want, up to the
  /// format's greatest. The encoding is for people.
  std::vector<CaptureDeviceFormat> formats;
  /// Pictures a second where a session asks for none.
  double frameRate = 30;
  /// The formats of its pictures that are the least work: '420f', '420v', or both.
  std::vector<PixelFormat> pixelFormats = {PixelFormat::BiPlanarVideoRange};
  /// Makes what makes the pictures, each time that a session begins to run the camera. Called on a queue of the
  /// session's. Null counts as a camera that delivers nothing.
  std::function<std::unique_ptr<VirtualCameraPictures>()> makePictures;
};

}  // namespace zellive
