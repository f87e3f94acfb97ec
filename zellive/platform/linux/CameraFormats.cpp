#include "zellive/platform/linux/CameraFormats.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <tuple>

#include "zellive/platform/linux/RawPicture.h"

namespace zellive {
namespace {

constexpr double kUsualFrameRate = 30;
constexpr std::chrono::duration<double> kLongest = std::chrono::hours(1);

std::size_t distance(std::size_t a, std::size_t b) { return a > b ? a - b : b - a; }

}  // namespace

std::optional<PictureSize> sizeOfPreset(std::string_view preset) {
  constexpr std::string_view kPrefix = "AVCaptureSessionPreset";
  if (!preset.starts_with(kPrefix)) {
    return std::nullopt;
  }
  preset.remove_prefix(kPrefix.size());
  if (preset == "High") {
    return PictureSize{1920, 1080};
  }
  if (preset == "Medium") {
    return PictureSize{480, 360};
  }
  if (preset == "Low") {
    return PictureSize{192, 144};
  }
  PictureSize size;
  const char* const end = preset.data() + preset.size();
  const auto width = std::from_chars(preset.data(), end, size.width);
  if (width.ec != std::errc() || width.ptr == end || *width.ptr != 'x') {
    return std::nullopt;
  }
  const auto height = std::from_chars(width.ptr + 1, end, size.height);
  if (height.ec != std::errc() || height.ptr != end || size.width == 0 || size.height == 0) {
    return std::nullopt;
  }
  return size;
}

std::chrono::nanoseconds frameDurationOf(const MediaTime& least) {
  if ((least.flags & MediaTime::kValid) == 0 || least.isIndefinite() || least.timescale <= 0 || least.value <= 0) {
    return {};
  }
  const auto seconds = std::chrono::duration<double>(static_cast<double>(least.value) / least.timescale);
  return std::max(kLeastFrameDuration, std::chrono::round<std::chrono::nanoseconds>(std::min(seconds, kLongest)));
}

std::vector<CaptureDeviceFormat> bySuitability(std::vector<CaptureDeviceFormat> formats, const CameraRequest& request) {
  std::erase_if(formats, [](const CaptureDeviceFormat& format) { return !encodingRank(format.encoding); });
  const double wanted = request.frameDuration.count() > 0
                            ? 1 / std::chrono::duration<double>(request.frameDuration).count()
                            : kUsualFrameRate;
  const auto rank = [&](const CaptureDeviceFormat& format) {
    // A rate that is unknown may be any. Rates such as 29.97 do for 30.
    const double rate = format.maxFrameRate > 0 ? std::ceil(format.maxFrameRate) : wanted;
    return std::tuple(distance(format.width, request.size.width) + distance(format.height, request.size.height),
                      -std::min(rate, std::floor(wanted)), *encodingRank(format.encoding));
  };
  std::stable_sort(formats.begin(), formats.end(),
                   [&](const auto& left, const auto& right) { return rank(left) < rank(right); });
  return formats;
}

void assignPlaces(std::vector<CameraPlace>& places) {
  for (const auto wanted : {CaptureDevicePositionFront, CaptureDevicePositionBack}) {
    const auto at = [&](const CameraPlace& place) { return place.position == wanted; };
    const auto vacant = [](const CameraPlace& place) {
      return place.mayServe && place.position == CaptureDevicePositionUnspecified;
    };
    const auto next = std::find_if(places.begin(), places.end(), vacant);
    if (next != places.end() && std::none_of(places.begin(), places.end(), at)) {
      next->position = wanted;
    }
  }
}

bool FrameThinner::admits(std::chrono::nanoseconds time) {
  // A quarter of the duration is left to the camera's jitter.
  if (least_.count() <= 0) {
    return true;
  }
  if (due_ && time < *due_ - least_ / 4) {
    return false;
  }
  due_ = due_ && time < *due_ + least_ ? *due_ + least_ : time + least_;
  return true;
}

}  // namespace zellive
