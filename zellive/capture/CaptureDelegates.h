#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace zellive {

class PixelBuffer;
class ZelLiveAudioCapture;
class ZelLiveReplayCapture;
class ZelLiveVideoCapture;

/// Why a capture source failed.
struct ZelLiveCaptureError {
  std::string domain;
  std::int64_t code = 0;
  std::string message;
};

/// Receives the microphone's PCM (interleaved signed 16-bit little-endian) on the microphone's thread. The bytes are
/// the caller's.
class ZelLiveAudioCaptureDelegate {
 public:
  virtual ~ZelLiveAudioCaptureDelegate() = default;
  virtual void audioCaptureOutputAudioData(ZelLiveAudioCapture* output, std::span<const std::uint8_t> audioData) {
    (void)output, (void)audioData;
  }
};

/// Receives the camera's pictures on the capture chain's queue.
class ZelLiveVideoCaptureDelegate {
 public:
  virtual ~ZelLiveVideoCaptureDelegate() = default;
  virtual void videoCaptureOutputPixelBuffer(ZelLiveVideoCapture* output, std::shared_ptr<PixelBuffer> pixelBuffer) {
    (void)output, (void)pixelBuffer;
  }
};

/// Receives the screen's pictures, the sound beside them and the recorder's failures, on the recorder's queues.
class ZelLiveReplayCaptureDelegate {
 public:
  virtual ~ZelLiveReplayCaptureDelegate() = default;
  virtual void replayCaptureOutputAudioData(ZelLiveReplayCapture* output, std::span<const std::uint8_t> audioData) {
    (void)output, (void)audioData;
  }
  virtual void replayCaptureOutputPixelBuffer(ZelLiveReplayCapture* output, std::shared_ptr<PixelBuffer> pixelBuffer) {
    (void)output, (void)pixelBuffer;
  }
  virtual void replayCaptureOutputError(ZelLiveReplayCapture* output, const ZelLiveCaptureError& error) {
    (void)output, (void)error;
  }
};

}  // namespace zellive
