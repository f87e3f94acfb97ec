// What a session tells and asks the live-room service.
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive {

using namespace std::chrono_literals;

namespace {

constexpr auto kMonitorInterval = 10s;
constexpr std::uint64_t kSuccess = 200;
constexpr std::uint64_t kAskAgain = 867;

std::optional<std::string> textIn(const QMZDictionary& dictionary, const char* key) {
  const auto entry = dictionary.find(key);
  if (entry == dictionary.end()) {
    return std::nullopt;
  }
  const auto* text = std::get_if<std::string>(&entry->second.value);
  return text ? std::optional<std::string>(*text) : std::nullopt;
}

}  // namespace

void ZelLiveSession::liveUpdateStatus(std::uint64_t status) {
  const auto info = streamInfo();
  if (!info || !info->roomId) {
    return;
  }
  const char* name = status == 1 ? "SUSPEND" : status == 2 ? "ENDED" : "INLIVE";
  platform_->companion->loginManager()->activeAccount()->liveUpdateStatus(
      {{"roomId", {*info->roomId}}, {"liveStatus", {std::string(name)}}});
}

void ZelLiveSession::stopLiveWithRoomId() {
  const auto info = streamInfo();
  platform_->companion->loginManager()->activeAccount()->stopLiveWithRoomId(info ? info->roomId : std::nullopt);
}

void ZelLiveSession::refreshPushUrl() {
  ZEL_LOG_INFO("Live: refresh push url");
  const auto info = streamInfo();
  if (!info) {
    return;
  }
  platform_->companion->loginManager()->activeAccount()->getLivePushUrlWithRoomId(
      info->roomId.value_or(""), [weak = weak_from_this()](const QMZError& error, std::uint64_t code,
                                                           const std::optional<QMZDictionary>& response) {
        const auto self = weak.lock();
        if (!self) {
          return;
        }
        if (code != kSuccess) {
          ZEL_LOG_ERROR("Live: refresh push request error = %s session: %s", error.message.c_str(),
                        describeObject("ZelLiveSession", self.get()).c_str());
          if (code == kAskAgain) {
            self->platform_->queues->globalQueue()->async([weak] {
              if (auto again = weak.lock()) {
                again->refreshPushUrl();
              }
            });
          }
          return;
        }
        const auto url = response ? textIn(*response, "url") : std::nullopt;
        const auto current = self->streamInfo();
        const auto publisher = self->socket();
        if (url && current && publisher) {
          current->setUrl(*url);
          publisher->updateStreamInfo(current);
        }
      });
}

void ZelLiveSession::liveMonitor() {
  const auto info = streamInfo();
  const auto audio = audioConfiguration();
  const auto video = videoConfiguration();
  if (uploading_ && info && audio && video) {
    const auto rate = audio->audioSampleRate();
    const auto frameLength = rate == 0 ? 0 : 1024000 / rate;
    const auto audioFPS = frameLength == 0 ? 0 : 1000 / frameLength;
    const auto size = video->videoSize();
    const auto number = [](auto value) { return QMZValue{static_cast<double>(value)}; };
    platform_->companion->loginManager()->activeAccount()->livePostData(
        {{"roomId", {info->roomId.value_or("")}},
         {"videoFPS", number(video->videoFrameRate())},
         {"audioFPS", number(audioFPS)},
         {"bitRate", number(video->videoBitRate() + audio->audioBitRate())},
         {"width", number(size.width)},
         {"height", number(size.height)}});
  }
  platform_->queues->globalQueue()->after(kMonitorInterval, [weak = weak_from_this()] {
    if (auto self = weak.lock()) {
      self->liveMonitor();
    }
  });
}

}  // namespace zellive
