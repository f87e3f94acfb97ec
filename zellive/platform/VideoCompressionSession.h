#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zellive/platform/Data.h"
#include "zellive/platform/PixelBuffer.h"

namespace zellive {

/// Which H.264 encoder to use and how hard it tries. Empty fields mean "the best that works here".
struct VideoEncoderOptions {
  std::string encoder;  ///< "h264_nvenc", "h264_vaapi" or "libx264" (also "nvenc", "vaapi", "x264").
  std::string preset;   ///< The encoder's own preset name; for libx264 "ultrafast" … "veryslow".
};

/// What a compression session is to make: H.264 High profile, CABAC, no reordering, one slice a picture.
struct VideoCompressionSettings {
  /// Pixels of the encoded picture, 2 … 16384; pictures of another size are scaled to it. An odd size loses its last
  /// column or row: 4:2:0 pictures have even sizes.
  std::int32_t width = 0;
  std::int32_t height = 0;                        ///< See width.
  std::uint64_t maxKeyFrameInterval = 0;          ///< Frames; 0: see maxKeyFrameIntervalDuration.
  std::uint64_t maxKeyFrameIntervalDuration = 0;  ///< Seconds, where no count of frames is given; 0: no limit at all.
  std::uint64_t expectedFrameRate = 0;            ///< Frames per second; 0 or above 1000: not known, taken as 30.
  std::int64_t averageBitRate = 0;                ///< Bits per second; 0 or less: one that suits size and frame rate.
  double dataRateLimitBytes = 0;                  ///< At most so many bytes (0 or less: 1.5 times the average) …
  std::int64_t dataRateLimitSeconds = 1;          ///< … in any so many seconds.
  bool realTime = true;
  VideoEncoderOptions options;
};

/// One encoded picture.
struct VideoSample {
  /// NAL units without parameter sets, each led by its length, 4 bytes big-endian (ISO/IEC 14496-15). May be absent.
  Data data;
  bool sync = false;  ///< An IDR picture.
  /// The bare parameter sets in force (ISO/IEC 14496-10, 7.3.2); absent when the encoder has not told them yet.
  Data sps;
  Data pps;
};

/// How a picture is to be encoded.
struct VideoFrameProperties {
  bool forceKeyFrame = false;
  /// Put an SEI NAL unit of our own ahead of the slice, if the picture becomes a key frame.
  bool leadingSei = false;
};

/// An H.264 encoder. Driven from one thread at a time, except setBitRate, which any thread may call.
class VideoCompressionSession {
 public:
  /// Called once for each picture accepted by encodeFrame, in order, with the picture's reference; from encodeFrame,
  /// from completeFrames or from a thread of the encoder's. `status` is 0 or the encoder's error; `sample` is null when
  /// there is none.
  using OutputHandler = std::function<void(std::uint64_t reference, int status, const VideoSample* sample)>;

  virtual ~VideoCompressionSession() = default;

  /// Submits a picture with its presentation time in units of 1 / expectedFrameRate s. 0, or the encoder's error; after
  /// an error the handler is not called for this picture.
  [[nodiscard]] virtual int encodeFrame(const std::shared_ptr<PixelBuffer>& picture, std::int64_t presentationTime,
                                        VideoFrameProperties properties, std::uint64_t reference) = 0;
  /// Delivers every pending picture before it returns.
  virtual void completeFrames() = 0;
  /// Changes the average rate (bits per second) and its limit for the pictures that follow. Thread-safe.
  virtual void setBitRate(std::int64_t averageBitRate, double dataRateLimitBytes,
                          std::int64_t dataRateLimitSeconds) = 0;
  /// The encoder's name, for example "libx264".
  [[nodiscard]] virtual std::string encoderName() const = 0;
};

/// What an encoder of this machine can do, for listings.
struct VideoEncoderDescription {
  std::string name;
  bool hardware = false;
  std::vector<std::string> presets;  ///< Those that can be listed.
};

/// Makes compression sessions. Thread-safe.
class VideoCompressionService {
 public:
  virtual ~VideoCompressionService() = default;
  /// A session ready to encode; null with `status` set to an error (never 0) when the settings cannot be met or no
  /// encoder works. Says in the log which encoder was taken, and why one that was named was not.
  [[nodiscard]] virtual std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings& settings,
                                                                        VideoCompressionSession::OutputHandler output,
                                                                        int& status) = 0;
  /// The encoders that work on this machine, best first. Takes up to a second on first use.
  [[nodiscard]] virtual std::vector<VideoEncoderDescription> available() = 0;
};

}  // namespace zellive
