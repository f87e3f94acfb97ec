#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "zellive/platform/CaptureSession.h"

namespace zellive {

struct PictureSize {
  std::size_t width = 0;
  std::size_t height = 0;
  friend bool operator==(const PictureSize&, const PictureSize&) = default;
};

/// Of a preset's name: "AVCaptureSessionPreset1280x720", or "…High", "…Medium", "…Low". Nothing for other names.
[[nodiscard]] std::optional<PictureSize> sizeOfPreset(std::string_view preset);

/// What a session asks of its camera.
struct CameraRequest {
  PixelFormat format = PixelFormat::BiPlanarVideoRange;
  PictureSize size{640, 480};
  std::chrono::nanoseconds frameDuration{};  ///< The least; 0 for the camera's own.
  friend bool operator==(const CameraRequest&, const CameraRequest&) = default;
};

/// The shortest of which any camera is asked; what is less asks for this.
inline constexpr std::chrono::nanoseconds kLeastFrameDuration = std::chrono::milliseconds(1);

/// The duration that two frame durations, as a camera or session is given them, ask for.
[[nodiscard]] std::chrono::nanoseconds frameDurationOf(const MediaTime& least);

/// The formats from the most suitable to the least: the size nearest to the one that is asked for, then a rate that is
/// sufficient (30 a second where none is asked for), then the encoding that is the least work. Those of unknown
/// encodings are left out.
[[nodiscard]] std::vector<CaptureDeviceFormat> bySuitability(std::vector<CaptureDeviceFormat> formats,
                                                             const CameraRequest& request);

/// Who looks where.
struct CameraPlace {
  CaptureDevicePosition position = CaptureDevicePositionUnspecified;  ///< As the camera says itself.
  bool mayServe = true;  ///< Whether the camera may be put where it does not say that it is.
};
/// Where none says that it is at the front, the first that says nothing serves as the front one, and the next as the
/// back one, so that a machine with one plain camera has a front camera. In the order given.
void assignPlaces(std::vector<CameraPlace>& places);

/// Leaves out pictures so that those left are no nearer to each other than a duration, as far as the camera's own
/// rhythm allows. Of one thread.
class FrameThinner {
 public:
  explicit FrameThinner(std::chrono::nanoseconds least) : least_(least) {}
  /// Whether the picture of this time is to be delivered.
  [[nodiscard]] bool admits(std::chrono::nanoseconds time);

 private:
  const std::chrono::nanoseconds least_;
  std::optional<std::chrono::nanoseconds> due_;
};

}  // namespace zellive
