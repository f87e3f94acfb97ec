#pragma once

#include <cstdint>

namespace zellive {

/// Where a session's audio and video come from; the bits combine.
enum ZelLiveCaptureTypeMask : std::int64_t {
  ZelLiveCaptureAudio = 1,  ///< Microphone.
  ZelLiveCaptureVideo = 2,  ///< Camera.
  ZelLiveInputAudio = 4,    ///< The application pushes PCM.
  ZelLiveInputVideo = 8,    ///< The application pushes pictures.
  ZelLiveReplayAudio = 16,  ///< Audio beside the screen.
  ZelLiveReplayVideo = 32,  ///< The screen.
};

inline constexpr std::int64_t ZelLiveAnyAudio = ZelLiveCaptureAudio | ZelLiveInputAudio | ZelLiveReplayAudio;
inline constexpr std::int64_t ZelLiveAnyVideo = ZelLiveCaptureVideo | ZelLiveInputVideo | ZelLiveReplayVideo;
inline constexpr std::int64_t ZelLiveAnyReplay = ZelLiveReplayAudio | ZelLiveReplayVideo;

}  // namespace zellive
