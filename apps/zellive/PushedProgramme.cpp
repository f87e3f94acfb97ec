#include "apps/zellive/PushedProgramme.h"

#include <utility>

#include "apps/zellive/StreamSettings.h"

namespace zellive::tool {
namespace {

using namespace std::chrono_literals;

/// What may be sent in a burst after a stall.
constexpr auto maximumLag = 200ms;
/// Blocks of sound: the send buffer keeps five frames back to sort them, the encoders one each.
constexpr int tailLength = 8;

}  // namespace

PushedProgramme::PushedProgramme(const PublishOptions& options, std::unique_ptr<MediaSource> source)
    : options_(options),
      source_(std::move(source)),
      video_(makeVideoConfiguration(options, source_->pictureSize(), source_->frameRate())),
      feed_(*source_, *this, video_->videoFrameRate()),
      pacer_(maximumLag) {}

std::string PushedProgramme::name() const { return options_.input.empty() ? "the test card" : options_.input; }

void PushedProgramme::attach(const std::shared_ptr<ZelLiveSession>& session) {
  session_ = session;
  session_->setInputVideoFrameRate(video_->videoFrameRate());
}

void PushedProgramme::begin(Duration now) { pacer_.start(now); }

Programme::Duration PushedProgramme::nextStep(Duration now) const {
  return pacer_.due(mediaEnded_ ? feed_.position() : feed_.next(), now);
}

/// One step at most, so that a machine that cannot keep up still hears signals and events.
bool PushedProgramme::step(Duration now) {
  if (nextStep(now) > now) {
    return true;
  }
  if (mediaEnded_) {
    feed_.stepSilence();
    return ++tailBlocks_ < tailLength;
  }
  mediaEnded_ = isOver() || !feed_.step();
  return !mediaEnded_ || failure().empty();
}

std::string PushedProgramme::failure() const {
  if (const auto reason = source_->failure(); !reason.empty()) {
    return reason;
  }
  return mediaEnded_ && !isOver() && feed_.pictures() < 2
             ? options_.input + " holds a single picture, which is over at once; --loop keeps it on"
             : std::string();
}

}  // namespace zellive::tool
