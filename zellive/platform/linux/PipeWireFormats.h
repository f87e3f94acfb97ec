#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zellive/platform/CaptureSession.h"
#include "zellive/platform/linux/CameraFormats.h"
#include "zellive/platform/linux/RawPicture.h"

struct spa_pod;

namespace zellive {

/// What one EnumFormat parameter of a camera offers: a format for each of its encodings and sizes. Of a range of sizes,
/// the usual ones. Encodings that cannot be read are among them, so that people see them.
[[nodiscard]] std::vector<CaptureDeviceFormat> formatsOffered(const spa_pod& parameter);

/// The format that a stream and a camera have agreed on.
struct AgreedFormat {
  std::string encoding;
  std::optional<RawLayout> layout;  ///< None: MJPEG.
  PictureSize size;
  bool fullRange = false;
  ColorMatrix matrix = ColorMatrix::Unspecified;
};
/// Nothing for what cannot be read.
[[nodiscard]] std::optional<AgreedFormat> agreedFormat(const spa_pod& parameter);

/// Parameters for a stream, with their memory.
class StreamParameters {
 public:
  /// The formats that a stream asks a camera for, best first: of those offered, at the rate asked for or, failing that,
  /// any; and then whatever can be read at all.
  [[nodiscard]] static StreamParameters formats(const std::vector<CaptureDeviceFormat>& offered,
                                                const CameraRequest& request);
  /// How the agreed format is to be handed over: in memory that can be mapped, with time stamps.
  [[nodiscard]] static StreamParameters buffers();

  /// For PipeWire's calls; valid as long as this object, until it is moved.
  [[nodiscard]] std::vector<const spa_pod*> pods() const;

 private:
  using Pod = std::vector<std::byte>;
  std::vector<Pod> pods_;
};

}  // namespace zellive
