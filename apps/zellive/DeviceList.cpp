#include "apps/zellive/DeviceList.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "apps/zellive/EncoderTrial.h"
#include "apps/zellive/LogCollector.h"
#include "zellive/platform/PcmFormat.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"

namespace zellive::tool {
namespace {

using Json = nlohmann::ordered_json;

/// The library tells of a missing service a moment after it was asked for devices.
constexpr auto newsLimit = std::chrono::milliseconds(300);

const char* positionName(CaptureDevicePosition position) {
  switch (position) {
    case CaptureDevicePositionFront:
      return "front";
    case CaptureDevicePositionBack:
      return "back";
    default:
      return "external";
  }
}

Json describe(const CaptureDevice& camera) {
  Json formats = Json::array();
  for (const auto& format : camera.formats()) {
    formats.push_back({{"encoding", format.encoding},
                       {"width", format.width},
                       {"height", format.height},
                       {"min_frame_rate", format.minFrameRate},
                       {"max_frame_rate", format.maxFrameRate}});
  }
  return {{"name", camera.localizedName()}, {"id", camera.uniqueID()},    {"position", positionName(camera.position())},
          {"virtual", camera.isVirtual()},  {"torch", camera.hasTorch()}, {"formats", formats}};
}

Json describe(const AudioInputDescription& microphone) {
  return {{"name", microphone.localizedName},
          {"id", microphone.uniqueID},
          {"channels", microphone.channels},
          {"sample_rate", microphone.sampleRate},
          {"virtual", microphone.isVirtual}};
}

/// The largest of the qualities' sizes at which the encoder opens.
Json largestSize(const Platform& platform, const std::string& encoder) {
  VideoCompressionSettings settings;
  settings.expectedFrameRate = 30;
  settings.options.encoder = encoder;
  for (const auto& [width, height] : {std::pair{3840, 2160}, {2560, 1440}, {1920, 1080}, {1280, 720}, {640, 480}}) {
    settings.width = width;
    settings.height = height;
    if (tryEncoder(platform, settings).empty()) {
      return {{"width", width}, {"height", height}};
    }
  }
  return nullptr;
}

/// Those that work, without the remarks on the others, which are tried one by one.
std::vector<VideoEncoderDescription> workingEncoders(const Platform& platform) {
  const LogCollector remarks(LogLevel::Information);
  return platform.videoCompression->available();
}

/// "does not work on this machine: Operation not permitted (it needs …)".
std::string withoutName(const std::string& reason, const std::string& name) {
  const auto at = reason.find(name);
  return at == std::string::npos ? reason : reason.substr(std::min(at + name.size() + 1, reason.size()));
}

Json videoEncoders(const Platform& platform) {
  const auto working = workingEncoders(platform);
  Json list = Json::array();
  for (const char* name : {"h264_nvenc", "h264_vaapi", "libx264"}) {
    Json encoder{{"name", name}, {"codec", "H.264 High"}};
    const auto found = std::ranges::find(working, name, &VideoEncoderDescription::name);
    encoder["works"] = found != working.end();
    if (found == working.end()) {
      VideoCompressionSettings settings;
      settings.width = 1280;
      settings.height = 720;
      settings.options.encoder = name;
      encoder["reason"] = withoutName(tryEncoder(platform, settings), name);
    } else {
      encoder["hardware"] = found->hardware;
      encoder["largest"] = largestSize(platform, name);
      encoder["presets"] = found->presets;
    }
    list.push_back(std::move(encoder));
  }
  return list;
}

Json audioEncoders(const Platform& platform) {
  Json formats = Json::array();
  for (const std::uint64_t quality : {99U, 3U, 2U, 0U}) {
    const auto configuration = ZelLiveAudioConfiguration::defaultConfigurationForQuality(quality);
    const auto channels = static_cast<std::uint32_t>(configuration->numberOfChannels());
    const auto rate = static_cast<double>(configuration->audioSampleRate());
    const AudioStreamBasicDescription pcm = sixteenBitPcm(rate, channels);
    const AudioStreamBasicDescription aac{.mSampleRate = rate,
                                          .mFormatID = kAudioFormatMPEG4AAC,
                                          .mFramesPerPacket = 1024,
                                          .mChannelsPerFrame = channels};
    int status = 0;
    if (platform.audioConversion->create(pcm, aac, status)) {
      formats.push_back({{"sample_rate", rate}, {"channels", channels}});
    }
  }
  const bool works = !formats.empty();
  return Json::array({{{"name", "aac"}, {"codec", "AAC-LC"}, {"works", works}, {"formats", std::move(formats)}}});
}

// ---- For people

/// "30", "29.97".
std::string rateText(double rate) {
  std::ostringstream text;
  text << std::round(rate * 100) / 100;
  return text.str();
}

std::string formatText(const Json& format) {
  const double least = format["min_frame_rate"];
  const double most = format["max_frame_rate"];
  std::string text = format["encoding"].get<std::string>() + " " + std::to_string(format["width"].get<int>()) + "x" +
                     std::to_string(format["height"].get<int>());
  if (most > 0) {
    text += " at " + (least > 0 && least < most ? rateText(least) + " to " : "") + rateText(most) + " fps";
  }
  return text;
}

std::string heading(const Json& device) {
  return "  " + device["name"].get<std::string>() + "\n      id " + device["id"].get<std::string>();
}

void print(std::ostream& out, const Json& list) {
  out << "Cameras\n";
  for (const auto& camera : list["cameras"]) {
    out << heading(camera) << "; " << camera["position"].get<std::string>()
        << (camera["virtual"].get<bool>() ? ", virtual" : "") << (camera["torch"].get<bool>() ? ", with a torch" : "")
        << '\n';
    for (const auto& format : camera["formats"]) {
      out << "      " << formatText(format) << '\n';
    }
  }
  out << (list["cameras"].empty() ? "  none\n" : "") << "Microphones\n";
  for (const auto& microphone : list["microphones"]) {
    const auto channels = microphone["channels"].get<int>();
    const double rate = microphone["sample_rate"];
    out << heading(microphone);
    if (channels > 0) {
      out << "; " << channels << (channels == 1 ? " channel" : " channels");
    }
    out << (rate > 0 ? ", " + rateText(rate) + " Hz" : "") << (microphone["virtual"].get<bool>() ? ", virtual" : "")
        << '\n';
  }
  out << (list["microphones"].empty() ? "  none\n" : "") << "Encoders\n";
  for (const auto& encoder : list["video_encoders"]) {
    out << "  " << encoder["name"].get<std::string>() << ": ";
    if (!encoder["works"].get<bool>()) {
      out << encoder["reason"].get<std::string>() << '\n';
      continue;
    }
    out << encoder["codec"].get<std::string>() << (encoder["hardware"].get<bool>() ? ", in hardware" : ", in software");
    if (const auto& size = encoder["largest"]; !size.is_null()) {
      out << ", up to " << size["width"] << "x" << size["height"];
    }
    out << '\n';
    for (std::size_t i = 0; i < encoder["presets"].size(); ++i) {
      out << (i == 0 ? "      presets " : ", ") << encoder["presets"][i].get<std::string>()
          << (i + 1 == encoder["presets"].size() ? "\n" : "");
    }
  }
  for (const auto& encoder : list["audio_encoders"]) {
    out << "  " << encoder["name"].get<std::string>() << ": " << encoder["codec"].get<std::string>();
    const char* parting = ", ";
    for (const auto& format : encoder["formats"]) {
      out << std::exchange(parting, "; ") << format["sample_rate"].get<int>() << " Hz "
          << (format["channels"] == 1 ? "mono" : "stereo");
    }
    out << (encoder["works"].get<bool>() ? "" : ", does not work") << '\n';
  }
}

}  // namespace

std::string deviceList(const Platform& platform, bool json, std::string& remark) {
  Json list{{"cameras", Json::array()}, {"microphones", Json::array()}};
  {
    const LogCollector news(LogLevel::Warning);
    bool hasReal = false;
    for (const auto& camera : platform.cameras->devices()) {
      list["cameras"].push_back(describe(*camera));
      hasReal = hasReal || !camera->isVirtual();
    }
    for (const auto& microphone : platform.audioInputs->devices()) {
      list["microphones"].push_back(describe(microphone));
      hasReal = hasReal || !microphone.isVirtual;
    }
    if (!hasReal) {
      remark = news.waitFor("PipeWire", newsLimit);
      remark = remark.empty() ? "" : remark.substr(0, remark.find(';')) + "; only virtual devices can be listed";
    }
  }
  list["video_encoders"] = videoEncoders(platform);
  list["audio_encoders"] = audioEncoders(platform);
  if (json) {
    list["remark"] = remark;
    return list.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
  }
  std::ostringstream text;
  print(text, list);
  return text.str();
}

}  // namespace zellive::tool
