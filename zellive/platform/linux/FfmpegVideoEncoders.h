#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "zellive/platform/VideoCompressionSession.h"
#include "zellive/platform/linux/FfmpegSupport.h"
#include "zellive/platform/linux/NalUnits.h"
#include "zellive/platform/linux/PictureConversion.h"

namespace zellive {

/// An encoder's rate control.
struct EncoderRate {
  std::int64_t average = 0;  ///< Bits per second; also the rate at which the decoder's buffer fills.
  int buffer = 0;            ///< Bits that the decoder's buffer holds.
};

/// The rate control that keeps an average and never exceeds the limit in any window of that many seconds: a window
/// holds at most average × seconds + buffer. `average` is above 0; a limit of 0 or less is 1.5 times the average.
[[nodiscard]] EncoderRate encoderRate(std::int64_t average, double limitBytes, std::int64_t limitSeconds);

/// All that an encoder must know before it is opened.
struct EncoderSetup {
  int width = 0;   ///< Even.
  int height = 0;  ///< Even.
  int frameRate = 0;
  int keyFrameInterval = 0;  ///< Frames.
  EncoderRate rate;
  std::string preset;
  AVPixelFormat layout = AV_PIX_FMT_YUV420P;
  PictureColour colour;
  bool quiet = false;  ///< The encoder does not write its errors to standard error.
};

/// One of libavcodec's H.264 encoders and how it is driven.
struct VideoEncoderKind {
  const char* name;
  const char* shortName;
  bool hardware;
  NalFraming framing;
  bool changesRate;   ///< A rate set on the open context is followed; otherwise it is opened anew.
  bool usesVaapi;     ///< Takes pictures in surfaces of the GPU's, from NV12.
  const char* needs;  ///< What a machine needs for it, in words.
  /// The presets that it has, parted by spaces; null where libavcodec tells.
  const char* presets;
  void (*configure)(AVCodecContext& context, AVDictionary*& options, const EncoderSetup& setup);
};

/// Best first.
[[nodiscard]] std::span<const VideoEncoderKind> videoEncoderKinds();
/// By full or short name; null when there is none.
[[nodiscard]] const VideoEncoderKind* findVideoEncoderKind(std::string_view name);

/// An open encoder; null with `status` set to libavcodec's error.
[[nodiscard]] ffmpeg::CodecContextPtr openVideoEncoder(const VideoEncoderKind& kind, const EncoderSetup& setup,
                                                       int& status);

/// Sets the rate for the pictures that follow.
void setEncoderRate(AVCodecContext& context, const EncoderRate& rate);

/// Threads with which libx264 keeps up. Each beyond the first costs one picture of delay.
[[nodiscard]] int softwareThreads(const EncoderSetup& setup);

}  // namespace zellive
