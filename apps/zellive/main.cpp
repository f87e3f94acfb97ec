#include <unistd.h>

#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "apps/zellive/ClipSource.h"
#include "apps/zellive/CommandLine.h"
#include "apps/zellive/EncoderTrial.h"
#include "apps/zellive/Output.h"
#include "apps/zellive/Publisher.h"
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

std::string announcement(const PublishOptions& options, const ZelLiveVideoConfiguration& video) {
  const Size size = video.videoSize();
  return "publishing " + (options.input.empty() ? std::string("the test card") : options.input) + " to " +
         maskedUrl(options.url) + ": " + toText({static_cast<int>(size.width), static_cast<int>(size.height)}) + ", " +
         std::to_string(video.videoFrameRate()) + " fps, " + std::to_string(video.videoBitRate() / 1000) + " kbit/s";
}

int publish(const PublishOptions& options) {
  auto output = std::make_shared<Output>(formOf(options), options.verbose, options.url);
  std::string error;
  const auto source = openSource(options, error);
  if (!source) {
    output->error(0, error);
    return failureStatus;
  }
  auto video = makeVideoConfiguration(options, source->pictureSize(), source->frameRate());
  if (const auto refusal = tryEncoder(options, *video); !refusal.empty()) {
    output->error(0, refusal);
    return options.encoder.empty() && options.preset.empty() ? failureStatus : usageStatus;
  }
  output->note(announcement(options, *video));
  Publisher publisher(options, *source, std::move(video), output, std::make_shared<Waker>());
  return publisher.run();
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
    return publish(std::get<PublishOptions>(parsed));
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "zellive: %s\n", exception.what());
    return failureStatus;
  }
}
