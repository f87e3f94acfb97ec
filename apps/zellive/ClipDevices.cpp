#include "apps/zellive/ClipDevices.h"

#include <algorithm>
#include <array>
#include <utility>

#include "apps/zellive/ClipAudio.h"
#include "apps/zellive/ClipDemuxer.h"
#include "apps/zellive/ClipVideo.h"
#include "apps/zellive/PictureFitter.h"
#include "zellive/platform/VirtualCamera.h"
#include "zellive/platform/VirtualMicrophone.h"

namespace zellive::tool {
namespace {

/// Where a device that begins at `position` of endless passes is in the first one: nobody decodes hours to get there.
MediaTime inFirstPass(MediaTime position, MediaTime pass) { return pass > MediaTime{} ? position % pass : position; }

class ClipPictures : public VirtualCameraPictures {
 public:
  /// Null with `error` set when the file cannot be played.
  static std::unique_ptr<ClipPictures> open(const std::string& path, std::string& error) {
    std::unique_ptr<ClipPictures> pictures(new ClipPictures);
    pictures->demuxer_ = ClipDemuxer::open(path, true, error, ClipDemuxer::Use::VideoOnly);
    pictures->video_ = pictures->demuxer_ ? ClipVideo::open(*pictures->demuxer_, error) : nullptr;
    return pictures->video_ ? std::move(pictures) : nullptr;
  }
  void beginAt(MediaTime position) { begin_ = inFirstPass(position, demuxer_->duration()); }
  [[nodiscard]] double frameRate() const { return video_->frameRate(); }

  std::shared_ptr<PixelBuffer> pictureAt(std::chrono::nanoseconds time, PixelFormat /*format*/, std::size_t width,
                                         std::size_t height) override {
    auto picture = video_->pictureAt(begin_ + time);
    return picture ? fitter_.fit(std::move(picture), width, height) : nullptr;
  }

 private:
  ClipPictures() = default;

  std::unique_ptr<ClipDemuxer> demuxer_;
  std::unique_ptr<ClipVideo> video_;
  PictureFitter fitter_;
  MediaTime begin_{};
};

class ClipSound : public VirtualMicrophoneSound {
 public:
  /// Null with `error` set when the file cannot be played.
  static std::unique_ptr<ClipSound> open(const std::string& path, std::shared_ptr<ClipClock> clock,
                                         std::string& error) {
    std::unique_ptr<ClipSound> sound(new ClipSound(std::move(clock)));
    sound->demuxer_ = ClipDemuxer::open(path, true, error, ClipDemuxer::Use::AudioOnly);
    sound->audio_ = sound->demuxer_ ? ClipAudio::open(*sound->demuxer_, error) : nullptr;
    return sound->audio_ ? std::move(sound) : nullptr;
  }

  void render(std::int64_t position, std::span<std::int16_t> samples) override {
    if (!began_) {
      began_ = true;
      // The position in the clip of sample 0 of the media clock, as a count of samples.
      offset_ = samplesUntil(inFirstPass(clock_->positionAt(timeOfSamples(position)), demuxer_->duration())) - position;
    }
    for (auto behind = position + offset_ - read_; behind > 0;) {
      const auto count = std::min<std::int64_t>(behind, static_cast<std::int64_t>(skipped_.size()));
      read({skipped_.data(), static_cast<std::size_t>(count)});
      behind -= count;
    }
    read(samples);
  }

 private:
  explicit ClipSound(std::shared_ptr<ClipClock> clock) : clock_(std::move(clock)) {}
  void read(std::span<std::int16_t> samples) {
    audio_->read(samples);
    read_ += static_cast<std::int64_t>(samples.size());
  }

  const std::shared_ptr<ClipClock> clock_;
  std::unique_ptr<ClipDemuxer> demuxer_;
  std::unique_ptr<ClipAudio> audio_;
  bool began_ = false;
  std::int64_t offset_ = 0;
  std::int64_t read_ = 0;
  std::array<std::int16_t, 480> skipped_{};
};

/// Every size that a session may want, at the clip's own rate: its pictures are fitted into them.
std::vector<CaptureDeviceFormat> formatsAt(double frameRate) {
  std::vector<CaptureDeviceFormat> formats;
  for (const auto& [width, height] : {std::pair{3840, 2160}, {1920, 1080}, {1280, 720}, {640, 480}}) {
    formats.push_back({"I420", static_cast<std::size_t>(width), static_cast<std::size_t>(height), 0, frameRate});
  }
  return formats;
}

}  // namespace

std::optional<std::string> addClipCamera(const Platform& platform, const std::string& path,
                                         std::shared_ptr<ClipClock> clock, std::string& error) {
  av_log_set_level(AV_LOG_FATAL);
  const auto trial = ClipPictures::open(path, error);
  if (!trial) {
    return std::nullopt;
  }
  VirtualCamera camera;
  camera.uniqueID = "clip:" + path;
  camera.localizedName = path;
  camera.formats = formatsAt(trial->frameRate());
  camera.frameRate = trial->frameRate();
  camera.makePictures = [path, clock = std::move(clock), mediaClock = platform.clock] {
    std::string reason;
    auto pictures = ClipPictures::open(path, reason);
    if (pictures) {
      pictures->beginAt(clock->positionAt(mediaClock->now()));
    }
    return pictures;
  };
  if (!platform.cameras->addVirtualCamera(camera)) {
    error = "the clip cannot stand in for a camera here";
    return std::nullopt;
  }
  return camera.uniqueID;
}

std::optional<std::string> addClipMicrophone(const Platform& platform, const std::string& path,
                                             std::shared_ptr<ClipClock> clock, std::string& error) {
  av_log_set_level(AV_LOG_FATAL);
  if (!ClipSound::open(path, clock, error)) {
    return std::nullopt;
  }
  VirtualMicrophone microphone;
  microphone.uniqueID = "clip:" + path;
  microphone.localizedName = path;
  microphone.channels = 1;
  microphone.sampleRate = static_cast<double>(sampleRate);
  microphone.makeSound = [path, clock = std::move(clock)](std::uint32_t rate,
                                                          std::uint32_t channels) -> std::unique_ptr<ClipSound> {
    std::string reason;
    const bool isOurs = rate == sampleRate && channels == 1;  // As this program's streams are.
    return isOurs ? ClipSound::open(path, clock, reason) : nullptr;
  };
  if (!platform.audioInputs->addVirtualMicrophone(microphone)) {
    error = "the clip cannot stand in for a microphone here";
    return std::nullopt;
  }
  return microphone.uniqueID;
}

}  // namespace zellive::tool
