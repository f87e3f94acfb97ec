#include "zellive/platform/linux/PipeWireFormats.h"

#include <spa/buffer/buffer.h>
#include <spa/buffer/meta.h>
#include <spa/debug/types.h>
#include <spa/param/buffers.h>
#include <spa/param/format-types.h>
#include <spa/param/format.h>
#include <spa/param/param.h>
#include <spa/param/video/format-utils.h>
#include <spa/param/video/raw-types.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>

namespace zellive {
namespace {

struct Known {
  std::uint32_t id;
  const char* encoding;
};
constexpr std::array<Known, 16> kKnown{{
    {SPA_VIDEO_FORMAT_NV12, "NV12"},
    {SPA_VIDEO_FORMAT_I420, "I420"},
    {SPA_VIDEO_FORMAT_YV12, "YV12"},
    {SPA_VIDEO_FORMAT_NV21, "NV21"},
    {SPA_VIDEO_FORMAT_YUY2, "YUY2"},
    {SPA_VIDEO_FORMAT_UYVY, "UYVY"},
    {SPA_VIDEO_FORMAT_BGRA, "BGRA"},
    {SPA_VIDEO_FORMAT_BGRx, "BGRx"},
    {SPA_VIDEO_FORMAT_RGBA, "RGBA"},
    {SPA_VIDEO_FORMAT_RGBx, "RGBx"},
    {SPA_VIDEO_FORMAT_BGR, "BGR"},
    {SPA_VIDEO_FORMAT_RGB, "RGB"},
    {SPA_VIDEO_FORMAT_ARGB, "ARGB"},
    {SPA_VIDEO_FORMAT_xRGB, "xRGB"},
    {SPA_VIDEO_FORMAT_ABGR, "ABGR"},
    {SPA_VIDEO_FORMAT_xBGR, "xBGR"},
}};
constexpr const char* kMjpeg = "MJPEG";
/// More are not worth asking for one by one.
constexpr std::size_t kFormatsAskedFor = 6;
constexpr spa_fraction kAnyRate{1000, 1};
constexpr std::uint32_t kLeastSide = 2;
constexpr std::uint32_t kGreatestSide = 8192;
constexpr std::array<PictureSize, 5> kUsualSizes{{{640, 480}, {1280, 720}, {1920, 1080}, {3840, 2160}, {352, 288}}};

std::string encodingName(std::uint32_t id) {
  const auto* const found =
      std::find_if(kKnown.begin(), kKnown.end(), [&](const Known& each) { return each.id == id; });
  if (found != kKnown.end()) {
    return found->encoding;
  }
  const char* const name = spa_debug_type_find_short_name(spa_type_video_format, id);
  return name != nullptr ? name : "unknown";
}

std::uint32_t encodingId(const std::string& encoding) {
  const auto* const found =
      std::find_if(kKnown.begin(), kKnown.end(), [&](const Known& each) { return encoding == each.encoding; });
  return found != kKnown.end() ? found->id : static_cast<std::uint32_t>(SPA_VIDEO_FORMAT_UNKNOWN);
}

/// The values of a property, the default first; none where the parameter has no such property of that type.
template <typename Value>
struct Choice {
  std::vector<Value> values;
  std::uint32_t type = SPA_CHOICE_None;
};

template <typename Value>
Choice<Value> choiceOf(const spa_pod& parameter, std::uint32_t key, std::uint32_t type) {
  const spa_pod_prop* const property = spa_pod_find_prop(&parameter, nullptr, key);
  Choice<Value> choice;
  if (property == nullptr) {
    return choice;
  }
  std::uint32_t count = 0;
  const spa_pod* const values = spa_pod_get_values(&property->value, &count, &choice.type);
  if (values->type != type || values->size != sizeof(Value)) {
    return choice;
  }
  choice.values.resize(count);
  // Values follow each other without their heads.
  if (count > 0) {
    std::memcpy(choice.values.data(), values + 1, count * sizeof(Value));
  }
  return choice;
}

double perSecond(const spa_fraction& rate) {
  return rate.denom > 0 ? static_cast<double>(rate.num) / static_cast<double>(rate.denom) : 0;
}

std::vector<PictureSize> sizesOf(const spa_pod& parameter) {
  const auto choice = choiceOf<spa_rectangle>(parameter, SPA_FORMAT_VIDEO_size, SPA_TYPE_Rectangle);
  std::vector<PictureSize> sizes;
  const auto add = [&](PictureSize size) {
    if (size.width > 0 && size.height > 0 && std::find(sizes.begin(), sizes.end(), size) == sizes.end()) {
      sizes.push_back(size);
    }
  };
  const bool range = choice.type == SPA_CHOICE_Range || choice.type == SPA_CHOICE_Step;
  for (std::size_t i = 0; i < (range ? std::min<std::size_t>(choice.values.size(), 1) : choice.values.size()); ++i) {
    add({choice.values[i].width, choice.values[i].height});
  }
  if (range && choice.values.size() >= 3) {
    for (const PictureSize& size : kUsualSizes) {
      if (size.width >= choice.values[1].width && size.width <= choice.values[2].width &&
          size.height >= choice.values[1].height && size.height <= choice.values[2].height) {
        add(size);
      }
    }
  }
  return sizes;
}

using Fill = std::function<void(spa_pod_builder*)>;

std::vector<std::byte> build(std::uint32_t type, std::uint32_t id, const Fill& fill) {
  std::array<std::byte, 1024> memory{};
  spa_pod_builder builder{};
  spa_pod_builder_init(&builder, memory.data(), static_cast<std::uint32_t>(memory.size()));
  spa_pod_frame frame{};
  spa_pod_builder_push_object(&builder, &frame, type, id);
  fill(&builder);
  const auto* const pod = static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame));
  return {memory.data(), memory.data() + SPA_POD_SIZE(pod)};
}

void addId(spa_pod_builder* builder, std::uint32_t key, std::uint32_t value) {
  spa_pod_builder_prop(builder, key, 0);
  spa_pod_builder_id(builder, value);
}

void addInt(spa_pod_builder* builder, std::uint32_t key, std::int32_t value) {
  spa_pod_builder_prop(builder, key, 0);
  spa_pod_builder_int(builder, value);
}

void addChoice(spa_pod_builder* builder, std::uint32_t key, std::uint32_t type, const std::function<void()>& values) {
  spa_pod_builder_prop(builder, key, 0);
  spa_pod_frame frame{};
  spa_pod_builder_push_choice(builder, &frame, type, 0);
  values();
  spa_pod_builder_pop(builder, &frame);
}

void addRates(spa_pod_builder* builder, const spa_fraction& wanted, const spa_fraction& greatest) {
  addChoice(builder, SPA_FORMAT_VIDEO_framerate, SPA_CHOICE_Range, [&] {
    spa_pod_builder_fraction(builder, wanted.num, wanted.denom);
    spa_pod_builder_fraction(builder, 0, 1);
    spa_pod_builder_fraction(builder, greatest.num, greatest.denom);
  });
}

void addSubtype(spa_pod_builder* builder, bool mjpeg) {
  addId(builder, SPA_FORMAT_mediaType, SPA_MEDIA_TYPE_video);
  addId(builder, SPA_FORMAT_mediaSubtype, mjpeg ? SPA_MEDIA_SUBTYPE_mjpg : SPA_MEDIA_SUBTYPE_raw);
}

}  // namespace

std::vector<CaptureDeviceFormat> formatsOffered(const spa_pod& parameter) {
  std::uint32_t mediaType = 0;
  std::uint32_t subtype = 0;
  if (spa_format_parse(&parameter, &mediaType, &subtype) < 0 || mediaType != SPA_MEDIA_TYPE_video) {
    return {};
  }
  std::vector<std::string> encodings;
  const auto add = [&](std::string name) {
    if (std::find(encodings.begin(), encodings.end(), name) == encodings.end()) {
      encodings.push_back(std::move(name));
    }
  };
  if (subtype == SPA_MEDIA_SUBTYPE_raw) {
    for (const auto id : choiceOf<std::uint32_t>(parameter, SPA_FORMAT_VIDEO_format, SPA_TYPE_Id).values) {
      add(encodingName(id));
    }
  } else if (subtype == SPA_MEDIA_SUBTYPE_mjpg) {
    add(kMjpeg);
  } else {
    const char* const name = spa_debug_type_find_short_name(spa_type_media_subtype, subtype);
    add(name != nullptr ? name : "unknown");
  }
  const auto rates = choiceOf<spa_fraction>(parameter, SPA_FORMAT_VIDEO_framerate, SPA_TYPE_Fraction);
  double least = 0;
  double greatest = 0;
  if (!rates.values.empty()) {
    const auto [low, high] = std::minmax_element(rates.values.begin(), rates.values.end(), [](auto& left, auto& right) {
      return perSecond(left) < perSecond(right);
    });
    least = perSecond(*low);
    greatest = perSecond(*high);
  }
  std::vector<CaptureDeviceFormat> formats;
  for (const auto& encoding : encodings) {
    for (const PictureSize& size : sizesOf(parameter)) {
      formats.push_back({encoding, size.width, size.height, least, greatest});
    }
  }
  return formats;
}

std::optional<AgreedFormat> agreedFormat(const spa_pod& parameter) {
  std::uint32_t mediaType = 0;
  std::uint32_t subtype = 0;
  if (spa_format_parse(&parameter, &mediaType, &subtype) < 0 || mediaType != SPA_MEDIA_TYPE_video) {
    return std::nullopt;
  }
  AgreedFormat format;
  if (subtype == SPA_MEDIA_SUBTYPE_mjpg) {
    spa_video_info_mjpg info{};
    if (spa_format_video_mjpg_parse(&parameter, &info) < 0) {
      return std::nullopt;
    }
    format.encoding = kMjpeg;
    format.size = {info.size.width, info.size.height};
    format.fullRange = true;
    format.matrix = ColorMatrix::BT601;
    return format;
  }
  spa_video_info_raw info{};
  if (subtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(&parameter, &info) < 0) {
    return std::nullopt;
  }
  format.encoding = encodingName(info.format);
  format.layout = layoutOf(format.encoding);
  if (!format.layout) {
    return std::nullopt;
  }
  format.size = {info.size.width, info.size.height};
  format.fullRange = info.color_range == SPA_VIDEO_COLOR_RANGE_0_255;
  if (isRgb(*format.layout) || info.color_matrix == SPA_VIDEO_COLOR_MATRIX_BT601) {
    format.matrix = ColorMatrix::BT601;
  } else if (info.color_matrix == SPA_VIDEO_COLOR_MATRIX_BT709) {
    format.matrix = ColorMatrix::BT709;
  }
  return format;
}

StreamParameters StreamParameters::formats(const std::vector<CaptureDeviceFormat>& offered,
                                           const CameraRequest& request) {
  auto best = bySuitability(offered, request);
  best.resize(std::min(best.size(), kFormatsAskedFor));
  const double wanted =
      request.frameDuration.count() > 0 ? 1 / std::chrono::duration<double>(request.frameDuration).count() : 0;
  const spa_fraction rate{static_cast<std::uint32_t>(std::lround((wanted > 0 ? wanted : 30) * 1000)), 1000};
  StreamParameters parameters;
  const auto ask = [&](const CaptureDeviceFormat& format, const spa_fraction& greatest) {
    const bool mjpeg = format.encoding == kMjpeg;
    parameters.pods_.push_back(build(SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, [&](spa_pod_builder* builder) {
      addSubtype(builder, mjpeg);
      if (!mjpeg) {
        addId(builder, SPA_FORMAT_VIDEO_format, encodingId(format.encoding));
      }
      spa_pod_builder_prop(builder, SPA_FORMAT_VIDEO_size, 0);
      spa_pod_builder_rectangle(builder, static_cast<std::uint32_t>(format.width),
                                static_cast<std::uint32_t>(format.height));
      addRates(builder, rate, greatest);
    }));
  };
  if (wanted > 0) {
    for (const auto& format : best) {
      ask(format, rate);
    }
  }
  for (const auto& format : best) {
    ask(format, kAnyRate);
  }
  for (const bool mjpeg : {false, true}) {
    parameters.pods_.push_back(build(SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, [&](spa_pod_builder* builder) {
      addSubtype(builder, mjpeg);
      if (!mjpeg) {
        addChoice(builder, SPA_FORMAT_VIDEO_format, SPA_CHOICE_Enum, [&] {
          spa_pod_builder_id(builder, kKnown.front().id);
          for (const Known& each : kKnown) {
            spa_pod_builder_id(builder, each.id);
          }
        });
      }
      addChoice(builder, SPA_FORMAT_VIDEO_size, SPA_CHOICE_Range, [&] {
        const auto side = [](std::size_t length) {
          return static_cast<std::uint32_t>(std::clamp<std::size_t>(length, kLeastSide, kGreatestSide));
        };
        spa_pod_builder_rectangle(builder, side(request.size.width), side(request.size.height));
        spa_pod_builder_rectangle(builder, kLeastSide, kLeastSide);
        spa_pod_builder_rectangle(builder, kGreatestSide, kGreatestSide);
      });
      addRates(builder, rate, kAnyRate);
    }));
  }
  return parameters;
}

StreamParameters StreamParameters::buffers() {
  StreamParameters parameters;
  parameters.pods_.push_back(build(SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, [](spa_pod_builder* builder) {
    addChoice(builder, SPA_PARAM_BUFFERS_buffers, SPA_CHOICE_Range, [&] {
      for (const std::int32_t count : {4, 2, 16}) {
        spa_pod_builder_int(builder, count);
      }
    });
    addChoice(builder, SPA_PARAM_BUFFERS_dataType, SPA_CHOICE_Flags,
              [&] { spa_pod_builder_int(builder, 1 << SPA_DATA_MemFd | 1 << SPA_DATA_MemPtr | 1 << SPA_DATA_DmaBuf); });
  }));
  parameters.pods_.push_back(build(SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, [](spa_pod_builder* builder) {
    addId(builder, SPA_PARAM_META_type, SPA_META_Header);
    addInt(builder, SPA_PARAM_META_size, sizeof(spa_meta_header));
  }));
  return parameters;
}

std::vector<const spa_pod*> StreamParameters::pods() const {
  std::vector<const spa_pod*> result;
  for (const Pod& pod : pods_) {
    result.push_back(reinterpret_cast<const spa_pod*>(pod.data()));
  }
  return result;
}

}  // namespace zellive
