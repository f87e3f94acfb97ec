#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "apps/zellive/CapturedProgramme.h"
#include "apps/zellive/ClipSource.h"
#include "apps/zellive/CommandLine.h"
#include "apps/zellive/DeviceList.h"
#include "apps/zellive/EncoderTrial.h"
#include "apps/zellive/Output.h"
#include "apps/zellive/Publisher.h"
#include "apps/zellive/PushedProgramme.h"
#include "apps/zellive/StreamSettings.h"
#include "apps/zellive/TestCardSource.h"

namespace zellive::tool {
namespace {

constexpr int failureStatus = 1;
constexpr int usageStatus = 2;

std::unique_ptr<MediaSource> openSource(const PublishOptions& options, std::string& error) {
  if (!options.input.empty()) {
    return ClipSource::open(options.input, options.loop, error);
  }
  auto card = TestCardSource::create(options.size.value_or(qualitySize(options.quality)));
  if (!card) {
    error = "no memory for the test card";
  }
  return card;
}

Output::Form formOf(const PublishOptions& options) {
  if (options.json) {
    return Output::Form::Json;
  }
  return isatty(STDOUT_FILENO) != 0 ? Output::Form::Terminal : Output::Form::Lines;
}

std::unique_ptr<Programme> openProgramme(const PublishOptions& options, std::shared_ptr<AppState> appState,
                                         std::shared_ptr<Output> output, std::string& error) {
  if (options.captures()) {
    return CapturedProgramme::create(options, defaultPlatform(), std::move(appState), std::move(output), error);
  }
  auto source = openSource(options, error);
  return source ? std::make_unique<PushedProgramme>(options, std::move(source)) : nullptr;
}

bool hasPictures(const Programme& programme) { return (programme.captureType() & ZelLiveAnyVideo) != 0; }

std::string announcement(const PublishOptions& options, const Programme& programme) {
  const std::string what = "publishing " + programme.name() + " to " + maskedUrl(options.url);
  if (!hasPictures(programme)) {
    return what + ": sound only";
  }
  const auto& video = *programme.video();
  const Size size = video.videoSize();
  return what + ": " + toText({static_cast<int>(size.width), static_cast<int>(size.height)}) + ", " +
         std::to_string(video.videoFrameRate()) + " fps, " + std::to_string(video.videoBitRate() / 1000) + " kbit/s";
}

int publish(const PublishOptions& options) {
  // Before any thread starts that could get its signals.
  const auto waker = std::make_shared<Waker>();
  auto output = std::make_shared<Output>(formOf(options), options.verbose, options.url);
  const auto appState =
      std::make_shared<AppState>(defaultPlatform()->notifications, [output](bool on) { output->background(on); });
  std::string error;
  const auto programme = openProgramme(options, appState, output, error);
  if (!programme) {
    output->error(0, error);
    return failureStatus;
  }
  if (const auto refusal = hasPictures(*programme) ? tryEncoder(options, *programme->video()) : std::string();
      !refusal.empty()) {
    output->error(0, refusal);
    return options.encoder.empty() && options.preset.empty() ? failureStatus : usageStatus;
  }
  output->note(announcement(options, *programme));
  Publisher publisher(options, *programme, appState, output, waker);
  return publisher.run();
}

/// The libraries of the window system and of OpenGL dismantle themselves when a program exits the ordinary way, while
/// the library's threads may still be taking leave of them.
[[noreturn]] void leaveAtOnce(int status) {
  std::fflush(nullptr);
  std::_Exit(status);
}

int listDevices(const DevicesOptions& options) {
  std::string remark;
  const auto list = deviceList(*defaultPlatform(), options.json, remark);
  std::fputs(list.c_str(), stdout);
  if (!remark.empty()) {
    std::fprintf(stderr, "zellive: %s\n", remark.c_str());
  }
  return 0;
}

}  // namespace
}  // namespace zellive::tool

int main(int argc, char** argv) {
  using namespace zellive::tool;
  try {
    const auto parsed = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (const auto* farewell = std::get_if<Farewell>(&parsed)) {
      std::fputs(farewell->text.c_str(), farewell->status == 0 ? stdout : stderr);
      return farewell->status;
    }
    if (const auto* devices = std::get_if<DevicesOptions>(&parsed)) {
      return listDevices(*devices);
    }
    const auto& options = std::get<PublishOptions>(parsed);
    const int status = publish(options);
    if (options.preview || options.camera) {
      leaveAtOnce(status);
    }
    return status;
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "zellive: %s\n", exception.what());
    return failureStatus;
  }
}
