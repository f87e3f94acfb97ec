#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "zellive/platform/Geometry.h"
#include "zellive/session/ZelLiveCaptureType.h"

namespace zellive {

class Device;
class KeyedArchiver;
class KeyedUnarchiver;

enum ZelLiveVideoQuality : std::uint64_t {
  ZelLiveVideoQualityLow = 0,       ///< 480 × 640, 24 fps, 0.9 Mbit/s.
  ZelLiveVideoQualityMedium = 1,    ///< 720 × 1280, 24 fps, 1.5 Mbit/s. Also any value above 4.
  ZelLiveVideoQualityHigh = 2,      ///< 1080 × 1920, 30 fps, 3.1 Mbit/s.
  ZelLiveVideoQualityVeryHigh = 3,  ///< 1440 × 2560, 30 fps, 3.6 Mbit/s.
  ZelLiveVideoQualityUltra = 4,     ///< 2160 × 3840, 30 fps, 6.1 Mbit/s.
};

enum ZelLiveCaptureSessionPreset : std::uint64_t {
  ZelLiveCaptureSessionPreset640x480 = 0,
  ZelLiveCaptureSessionPreset1280x720 = 1,
  ZelLiveCaptureSessionPreset1920x1080 = 2,
  ZelLiveCaptureSessionPreset2560x1440 = 3,
  ZelLiveCaptureSessionPreset3840x2160 = 4,
};

/// Video settings of one run. Set it up before the session starts and leave it alone afterwards: it is shared between
/// the stages and holds no lock.
class ZelLiveVideoConfiguration {
 public:
  using Ptr = std::shared_ptr<ZelLiveVideoConfiguration>;

  /// Quality 1 for the camera, portrait.
  [[nodiscard]] static Ptr defaultConfiguration();
  /// For the camera, portrait.
  [[nodiscard]] static Ptr defaultConfigurationForQuality(std::uint64_t quality);
  /// Portrait.
  [[nodiscard]] static Ptr defaultConfigurationForQuality(std::uint64_t quality, std::int64_t captureType);
  /// `orientation`: 1 portrait, 2 upside down, 3 landscape right, 4 landscape left.
  [[nodiscard]] static Ptr defaultConfigurationForQuality(std::uint64_t quality, std::int64_t captureType,
                                                          std::int64_t outputImageOrienration);
  /// Reads what encodeWithCoder wrote, without running the preset set-up; a key that is missing or of a wrong type
  /// leaves its field 0.
  [[nodiscard]] static Ptr initWithCoder(const KeyedUnarchiver& coder, std::shared_ptr<Device> device = nullptr);

  /// `device` answers for screen, orientation and camera; null takes the machine's.
  ZelLiveVideoConfiguration(std::uint64_t quality, std::int64_t captureType, std::int64_t outputImageOrientation,
                            std::shared_ptr<Device> device = nullptr);

  /// When true, videoSize() answers aspectRatioVideoSize().
  [[nodiscard]] bool videoSizeRespectingAspectRatio() const noexcept { return videoSizeRespectingAspectRatio_; }
  void setVideoSizeRespectingAspectRatio(bool respect) noexcept { videoSizeRespectingAspectRatio_ = respect; }
  [[nodiscard]] bool autorotate() const noexcept { return autorotate_; }
  void setAutorotate(bool autorotate) noexcept { autorotate_ = autorotate; }
  /// Interface orientation of the output; values as for the factories.
  [[nodiscard]] std::int64_t outputImageOrientation() const noexcept { return outputImageOrientation_; }
  void setOutputImageOrientation(std::int64_t orientation) noexcept { outputImageOrientation_ = orientation; }

  /// Frames per second.
  [[nodiscard]] std::uint64_t videoFrameRate() const noexcept { return videoFrameRate_; }
  void setVideoFrameRate(std::uint64_t rate) noexcept { videoFrameRate_ = rate; }
  /// A value not above videoFrameRate() is ignored.
  [[nodiscard]] std::uint64_t videoMaxFrameRate() const noexcept { return videoMaxFrameRate_; }
  void setVideoMaxFrameRate(std::uint64_t rate) noexcept;
  /// A value not below videoFrameRate() is ignored.
  [[nodiscard]] std::uint64_t videoMinFrameRate() const noexcept { return videoMinFrameRate_; }
  void setVideoMinFrameRate(std::uint64_t rate) noexcept;
  /// Frames between key frames.
  [[nodiscard]] std::uint64_t videoMaxKeyFrameInterval() const noexcept { return videoMaxKeyFrameInterval_; }
  void setVideoMaxKeyFrameInterval(std::uint64_t frames) noexcept { videoMaxKeyFrameInterval_ = frames; }

  /// Initial bit rate, bits per second.
  [[nodiscard]] std::uint64_t videoBitRate() const noexcept { return videoBitRate_; }
  void setVideoBitRate(std::uint64_t bitRate) noexcept { videoBitRate_ = bitRate; }
  /// Upper bound for adaptive bit rate; a value not above videoBitRate() is ignored.
  [[nodiscard]] std::uint64_t videoMaxBitRate() const noexcept { return videoMaxBitRate_; }
  void setVideoMaxBitRate(std::uint64_t bitRate) noexcept;
  /// Lower bound for adaptive bit rate; a value not below videoBitRate() is ignored.
  [[nodiscard]] std::uint64_t videoMinBitRate() const noexcept { return videoMinBitRate_; }
  void setVideoMinBitRate(std::uint64_t bitRate) noexcept;

  /// Index of the capture preset.
  [[nodiscard]] std::uint64_t sessionPreset() const noexcept { return sessionPreset_; }
  void setSessionPreset(std::uint64_t preset);
  /// Setting it writes the preset's row into the other fields.
  [[nodiscard]] std::uint64_t quality() const noexcept { return quality_; }
  void setQuality(std::uint64_t quality);
  /// Bits of ZelLiveCaptureTypeMask.
  [[nodiscard]] std::int64_t captureType() const noexcept { return captureType_; }
  void setCaptureType(std::int64_t type) noexcept { captureType_ = type; }

  /// Encoded size in pixels.
  [[nodiscard]] Size videoSize() const;
  void setVideoSize(Size size) noexcept { videoSize_ = size; }
  /// Size in pixels that the capture preset delivers, oriented.
  [[nodiscard]] Size captureOutVideoSize() const;
  /// Kept, and read by nothing: the getter and the archive take the computed size.
  void setCaptureOutVideoSize(Size size) noexcept { captureOutVideoSize_ = size; }
  /// captureOutVideoSize()'s shape fitted into the stored size, both sides even.
  [[nodiscard]] Size aspectRatioVideoSize() const;
  /// The platform's name of sessionPreset().
  [[nodiscard]] std::string avSessionPreset() const;
  /// Whether the output is landscape.
  [[nodiscard]] bool landscape() const;

  /// Writes the row of quality() into the other fields.
  void setupConfig();
  /// Probes the camera downward from `preset`; returns `preset`.
  std::uint64_t supportSessionPreset(std::uint64_t preset);
  /// One step of that probe.
  std::uint64_t checkSessionPreset(Device& session, std::uint64_t preset);

  void encodeWithCoder(KeyedArchiver& coder) const;
  /// Identity: two distinct configurations are never equal.
  [[nodiscard]] bool isEqual(const ZelLiveVideoConfiguration& other) const noexcept;
  [[nodiscard]] std::uint64_t hash() const;
  /// A new default configuration, whatever this one's values are.
  [[nodiscard]] Ptr copy() const;
  [[nodiscard]] std::string description() const;

 private:
  explicit ZelLiveVideoConfiguration(std::shared_ptr<Device> device);

  std::shared_ptr<Device> device_;
  bool videoSizeRespectingAspectRatio_ = false;
  bool autorotate_ = false;
  std::int64_t outputImageOrientation_ = 0;
  std::uint64_t videoFrameRate_ = 0;
  std::uint64_t videoMaxFrameRate_ = 0;
  std::uint64_t videoMinFrameRate_ = 0;
  std::uint64_t videoMaxKeyFrameInterval_ = 0;
  std::uint64_t videoBitRate_ = 0;
  std::uint64_t videoMaxBitRate_ = 0;
  std::uint64_t videoMinBitRate_ = 0;
  std::uint64_t sessionPreset_ = 0;
  std::uint64_t quality_ = 0;
  std::int64_t captureType_ = 0;
  Size videoSize_;
  Size captureOutVideoSize_;
};

}  // namespace zellive
