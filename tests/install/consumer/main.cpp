// Makes a session and feeds it without a server, to prove that the installed library links and runs.

#include <zellive/session/ZelLiveSession.h>

#include <cstdint>
#include <vector>

int main() {
  const auto audio = zellive::ZelLiveAudioConfiguration::defaultConfiguration();
  const std::int64_t type = zellive::ZelLiveInputAudio | zellive::ZelLiveInputVideo;
  const auto video = zellive::ZelLiveVideoConfiguration::defaultConfigurationForQuality(1, type);
  const auto session = zellive::ZelLiveSession::create(audio, video, type);
  session->pushAudio(std::vector<std::uint8_t>(audio->bufferLength()));
  session->stopLive();
  try {
    (void)zellive::ZelLiveSession::create(nullptr, nullptr, type);
  } catch (const zellive::ZelException&) {
    return 0;
  }
  return 1;
}
