#include "apps/zellive/CapturedProgramme.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "apps/zellive/ClipDevices.h"
#include "apps/zellive/StreamSettings.h"
#include "zellive/capture/ZelLiveVideoCapture.h"

namespace zellive::tool {
namespace {

constexpr std::string_view clipPrefix = "clip:";
/// The library tells of a missing service a moment after it was asked for devices.
constexpr auto newsLimit = std::chrono::milliseconds(300);

/// The picture's own size, unless it would cover more than a third of the preview's width or height.
Rect watermarkFrame(Size picture, Size preview) {
  const double scale = std::min({1.0, preview.width / 3 / picture.width, preview.height / 3 / picture.height});
  const double margin = preview.height / 40;
  const Size size{picture.width * scale, picture.height * scale};
  return {preview.width - size.width - margin, margin, size.width, size.height};
}

/// The id by which the library knows what NAME stands for: a clip is added as a device of its own first.
template <typename AddClip>
std::optional<std::string> resolve(std::string name, AddClip addClip, std::string& error) {
  if (!name.starts_with(clipPrefix)) {
    return name;
  }
  name.erase(0, clipPrefix.size());
  if (name.empty()) {
    error = "clip: needs a file, as in clip:talk.mp4";
    return std::nullopt;
  }
  return addClip(name, error);
}

}  // namespace

std::unique_ptr<CapturedProgramme> CapturedProgramme::create(const PublishOptions& options,
                                                             std::shared_ptr<const Platform> platform,
                                                             std::shared_ptr<AppState> appState,
                                                             std::shared_ptr<Output> output, std::string& error) {
  std::unique_ptr<CapturedProgramme> programme(new CapturedProgramme(options, std::move(platform)));
  if (!programme->findDevices(error)) {
    return nullptr;
  }
  programme->video_ =
      makeCameraConfiguration(options, programme->captureType(),
                              programme->camera_ ? programme->camera_->formats() : std::vector<CaptureDeviceFormat>());
  return options.preview && !programme->openPreview(std::move(appState), std::move(output), error)
             ? nullptr
             : std::move(programme);
}

bool CapturedProgramme::findDevices(std::string& error) {
  LogCollector news(LogLevel::Warning);
  const bool found =
      (!options_.camera || findCamera(news, error)) && (!options_.microphone || findMicrophone(news, error));
  news.keep();  // What is told of real devices before the stream begins concerns the list above.
  return found;
}

std::optional<std::size_t> CapturedProgramme::choose(const std::vector<DeviceName>& devices, const std::string& wanted,
                                                     const std::string& kind, const LogCollector& news,
                                                     std::string& error) {
  const auto chosen = chooseDevice(devices, wanted, kind, error);
  if (chosen) {
    usesHardware_ = usesHardware_ || !devices[*chosen].isVirtual;
  } else if (const auto text = news.waitFor("PipeWire", newsLimit); !text.empty()) {
    error += " (" + text.substr(0, text.find(';')) + ")";
  }
  return chosen;
}

bool CapturedProgramme::findCamera(const LogCollector& news, std::string& error) {
  auto& cameras = *platform_->cameras;
  const auto wanted = resolve(
      *options_.camera,
      [&](const std::string& path, std::string& why) { return addClipCamera(*platform_, path, clipClock_, why); },
      error);
  if (!wanted) {
    return false;
  }
  const auto devices = cameras.devices();
  std::vector<DeviceName> names;
  for (const auto& device : devices) {
    names.push_back({device->uniqueID(), device->localizedName(), device->isVirtual()});
  }
  const auto chosen = choose(names, *wanted, "camera", news, error);
  if (!chosen) {
    return false;
  }
  camera_ = devices[*chosen];
  // The session takes the front one, which is also the one that can be mirrored.
  if (!cameras.setDeviceAtPosition(CaptureDevicePositionFront, names[*chosen].id)) {
    error = "the camera \"" + names[*chosen].name + "\" has just gone";
    return false;
  }
  return true;
}

bool CapturedProgramme::findMicrophone(const LogCollector& news, std::string& error) {
  auto& microphones = *platform_->audioInputs;
  const auto wanted = resolve(
      *options_.microphone,
      [&](const std::string& path, std::string& why) { return addClipMicrophone(*platform_, path, clipClock_, why); },
      error);
  if (!wanted) {
    return false;
  }
  std::vector<DeviceName> names;
  for (const auto& device : microphones.devices()) {
    names.push_back({device.uniqueID, device.localizedName, device.isVirtual});
  }
  const auto chosen = choose(names, *wanted, "microphone", news, error);
  if (!chosen) {
    return false;
  }
  microphoneName_ = names[*chosen].name;
  // Without a name the person's own choice of the system's microphone stays in force, and is followed.
  if (!wanted->empty() && !microphones.setPreferredInput(names[*chosen].id)) {
    error = "the microphone \"" + microphoneName_ + "\" has just gone";
    return false;
  }
  return true;
}

bool CapturedProgramme::openPreview(std::shared_ptr<AppState> appState, std::shared_ptr<Output> output,
                                    std::string& error) {
  if (!options_.watermark.empty()) {
    const LogCollector complaints(LogLevel::Error);
    watermark_ = ImageView::createWithPNG(options_.watermark);
    if (!watermark_) {
      error = "the watermark cannot be shown: " + complaints.text();
      return false;
    }
  }
  preview_ = PreviewWindow::open(*platform_, camera_->localizedName(), video_->captureOutVideoSize(),
                                 options_.pauseUnfocused ? std::move(appState) : nullptr, std::move(output), error);
  return preview_ != nullptr;
}

std::string CapturedProgramme::name() const {
  const std::string camera = camera_ ? "the camera \"" + camera_->localizedName() + "\"" : "";
  const std::string microphone = options_.microphone ? "the microphone \"" + microphoneName_ + "\"" : "";
  return camera + (camera.empty() || microphone.empty() ? "" : " and ") + microphone;
}

std::int64_t CapturedProgramme::captureType() const {
  const std::int64_t sound = options_.microphone ? ZelLiveCaptureAudio : ZelLiveInputAudio;
  return options_.camera ? sound | ZelLiveCaptureVideo : sound;
}

void CapturedProgramme::attach(const std::shared_ptr<ZelLiveSession>& session) {
  session_ = session;
  if (!options_.microphone) {
    session_->turnOffAudio(true);
  }
  if (const auto capture = session_->videoCapture()) {
    capture->setMirror(options_.mirror);
    if (preview_) {
      preview_->show(session_);
    }
    if (watermark_) {
      showWatermark(*capture);
    }
  }
  session_->setRunning(true);
}

void CapturedProgramme::showWatermark(ZelLiveVideoCapture& capture) const {
  const auto content = capture.waterMarkContentView();
  const auto [picture, frame] = std::pair(watermark_->frame(), content->frame());
  watermark_->setFrame(watermarkFrame({picture.width, picture.height}, {frame.width, frame.height}));
  content->addSubview(watermark_);
  capture.setWaterMarkView(std::make_shared<View>());
}

Programme::Duration CapturedProgramme::nextStep(Duration now) const {
  return options_.duration ? begin_ + std::chrono::duration_cast<Duration>(*options_.duration)
                           : now + std::chrono::hours(1);
}

bool CapturedProgramme::step(Duration now) {
  if (now < nextStep(now)) {
    return true;
  }
  session_->setRunning(false);
  return false;
}

std::string CapturedProgramme::whatIsMissing() const {
  return std::string("nothing is published yet: the stream opens with the first ") +
         (!options_.camera       ? "sound"
          : !options_.microphone ? "picture"
                                 : "picture and the first sound");
}

}  // namespace zellive::tool
