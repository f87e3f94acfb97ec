#include "zellive/platform/linux/FfmpegVideoEncoders.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <limits>
#include <string_view>
#include <system_error>
#include <thread>

extern "C" {
#include <libavutil/dict.h>
#include <libavutil/hwcontext.h>
}

namespace zellive {
namespace {

constexpr const char* kDefaultSoftwarePreset = "superfast";
/// Pixels a second that one core encodes with the default preset, with room to spare for the rest of the program.
constexpr double kPixelsPerThread = 1280.0 * 720.0 * 45.0;

void set(AVDictionary*& options, const char* key, const char* value) { av_dict_set(&options, key, value, 0); }

void configureX264(AVCodecContext& context, AVDictionary*& options, const EncoderSetup& setup) {
  context.thread_count = softwareThreads(setup);
  context.thread_type = FF_THREAD_FRAME;
  set(options, "preset", setup.preset.empty() ? kDefaultSoftwarePreset : setup.preset.c_str());
  set(options, "tune", "zerolatency");
  set(options, "profile", "high");
  set(options, "forced-idr", "1");
  // One slice a picture; key frames where they are asked for and nowhere else; no pictures held back for a look ahead.
  set(options, "x264-params",
      "annexb=0:sliced-threads=0:slices=1:cabac=1:8x8dct=1:scenecut=0:rc-lookahead=0:mbtree=0:open-gop=0");
}

void configureNvenc(AVCodecContext& /*context*/, AVDictionary*& options, const EncoderSetup& setup) {
  set(options, "preset", setup.preset.empty() ? "p4" : setup.preset.c_str());
  set(options, "tune", "ull");
  set(options, "profile", "high");
  set(options, "coder", "cabac");
  set(options, "rc", "cbr");
  set(options, "forced-idr", "1");
  set(options, "zerolatency", "1");
  set(options, "delay", "0");
  set(options, "no-scenecut", "1");
}

void configureVaapi(AVCodecContext& context, AVDictionary*& options, const EncoderSetup& setup) {
  context.profile = FF_PROFILE_H264_HIGH;
  context.slices = 1;
  set(options, "coder", "cabac");
  set(options, "async_depth", "1");
  set(options, "aud", "0");
  set(options, "sei", "0");
  if (!setup.preset.empty()) {
    set(options, "compression_level", setup.preset.c_str());
  }
}

constexpr std::array<VideoEncoderKind, 3> kKinds{{
    {"h264_nvenc", "nvenc", true, NalFraming::AnnexB, true, false, "an NVIDIA GPU and its driver", nullptr,
     configureNvenc},
    {"h264_vaapi", "vaapi", true, NalFraming::AnnexB, false, true,
     "a GPU that encodes H.264, its VA-API driver and access to /dev/dri/renderD*", nullptr, configureVaapi},
    {"libx264", "x264", false, NalFraming::Lengths, true, false, "libavcodec built with libx264",
     // Asked for another one, libx264 writes to standard error by itself.
     "ultrafast superfast veryfast faster fast medium slow slower veryslow placebo", configureX264},
}};

/// Whether the machine has a render node at all; asking libva without one fills standard error.
bool hasRenderNode() {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/dev/dri", error)) {
    if (entry.path().filename().string().starts_with("renderD")) {
      return true;
    }
  }
  return false;
}

int attachVaapi(AVCodecContext& context) {
  if (!hasRenderNode()) {
    return AVERROR(ENODEV);
  }
  AVBufferRef* device = nullptr;
  if (const int status = av_hwdevice_ctx_create(&device, AV_HWDEVICE_TYPE_VAAPI, nullptr, nullptr, 0); status < 0) {
    return status;
  }
  const ffmpeg::BufferPtr deviceOwner(device);
  ffmpeg::BufferPtr frames(av_hwframe_ctx_alloc(device));
  if (!frames) {
    return AVERROR(ENOMEM);
  }
  auto* pool = reinterpret_cast<AVHWFramesContext*>(frames->data);
  pool->format = AV_PIX_FMT_VAAPI;
  pool->sw_format = AV_PIX_FMT_NV12;
  pool->width = context.width;
  pool->height = context.height;
  pool->initial_pool_size = 8;
  if (const int status = av_hwframe_ctx_init(frames.get()); status < 0) {
    return status;
  }
  context.pix_fmt = AV_PIX_FMT_VAAPI;
  context.hw_frames_ctx = frames.release();
  return 0;
}

AVColorSpace colorSpace(ColorMatrix matrix) {
  switch (matrix) {
    case ColorMatrix::BT601:
      return AVCOL_SPC_SMPTE170M;
    case ColorMatrix::BT709:
      return AVCOL_SPC_BT709;
    case ColorMatrix::Unspecified:
      break;
  }
  return AVCOL_SPC_UNSPECIFIED;
}

void configureCommon(AVCodecContext& context, const EncoderSetup& setup) {
  context.width = setup.width;
  context.height = setup.height;
  context.pix_fmt = setup.layout;
  context.time_base = {1, setup.frameRate};
  context.framerate = {setup.frameRate, 1};
  context.sample_aspect_ratio = {1, 1};
  context.gop_size = setup.keyFrameInterval;
  context.max_b_frames = 0;
  context.color_range = setup.colour.fullRange ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
  context.colorspace = colorSpace(setup.colour.matrix);
  context.flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  context.log_level_offset = setup.quiet ? ffmpeg::kSilent : ffmpeg::kErrorsOnly;
  setEncoderRate(context, setup.rate);
}

/// How much of the default preset's speed a preset of libx264's has.
double relativeSpeed(std::string_view preset) {
  if (preset == "ultrafast") {
    return 1.6;
  }
  if (preset.empty() || preset == kDefaultSoftwarePreset) {
    return 1;
  }
  return preset == "veryfast" ? 0.75 : 0.4;
}

}  // namespace

EncoderRate encoderRate(std::int64_t average, double limitBytes, std::int64_t limitSeconds) {
  const auto seconds = static_cast<double>(std::max<std::int64_t>(limitSeconds, 1));
  const double limit = limitBytes > 0 ? limitBytes * 8 : static_cast<double>(average) * seconds * 1.5;
  // A limit below the average bounds the average too, and the buffer must hold more than a key frame.
  const double rate = std::max(std::min(static_cast<double>(average), limit / seconds / 1.5), 1000.0);
  const double buffer = std::clamp(limit - rate * seconds, rate / 10, double{std::numeric_limits<int>::max()});
  return {static_cast<std::int64_t>(rate), static_cast<int>(buffer)};
}

std::span<const VideoEncoderKind> videoEncoderKinds() { return kKinds; }

const VideoEncoderKind* findVideoEncoderKind(std::string_view name) {
  const auto found = std::ranges::find_if(
      kKinds, [name](const VideoEncoderKind& kind) { return name == kind.name || name == kind.shortName; });
  return found == kKinds.end() ? nullptr : &*found;
}

ffmpeg::CodecContextPtr openVideoEncoder(const VideoEncoderKind& kind, const EncoderSetup& setup, int& status) {
  status = AVERROR_ENCODER_NOT_FOUND;
  const AVCodec* codec = avcodec_find_encoder_by_name(kind.name);
  if (codec == nullptr) {
    return nullptr;
  }
  ffmpeg::CodecContextPtr context(avcodec_alloc_context3(codec));
  status = AVERROR(ENOMEM);
  if (!context) {
    return nullptr;
  }
  configureCommon(*context, setup);
  status = kind.usesVaapi ? attachVaapi(*context) : 0;
  if (status < 0) {
    return nullptr;
  }
  AVDictionary* options = nullptr;
  kind.configure(*context, options, setup);
  status = avcodec_open2(context.get(), codec, &options);
  av_dict_free(&options);
  return status < 0 ? nullptr : std::move(context);
}

void setEncoderRate(AVCodecContext& context, const EncoderRate& rate) {
  context.bit_rate = rate.average;
  context.rc_max_rate = rate.average;
  context.rc_buffer_size = rate.buffer;
}

int softwareThreads(const EncoderSetup& setup) {
  const double load = static_cast<double>(setup.width) * setup.height * setup.frameRate /
                      (kPixelsPerThread * relativeSpeed(setup.preset));
  const double cores = std::max(std::thread::hardware_concurrency(), 1U);
  return static_cast<int>(std::clamp(std::ceil(load), 1.0, cores));
}

}  // namespace zellive
