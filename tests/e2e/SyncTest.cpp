#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>

#include "apps/zellive/MediaFeed.h"
#include "apps/zellive/Pacer.h"
#include "apps/zellive/StreamSettings.h"
#include "apps/zellive/TestCardSource.h"
#include "tests/e2e/Tool.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::test {
namespace {

using namespace std::chrono_literals;
using namespace tool;

/// Hands media to a session no faster than its encoder takes it, so that ten minutes pass as quickly as they can
/// without a picture being lost.
class EagerSink : public MediaSink, public ZelLiveSessionDelegate {
 public:
  explicit EagerSink(std::shared_ptr<ZelLiveSession> session) : session_(std::move(session)) {}

  void pushAudio(std::span<const std::uint8_t> pcm) override { session_->pushAudio(pcm); }

  void pushVideo(std::shared_ptr<PixelBuffer> picture) override {
    {
      std::unique_lock lock(gate_->mutex);
      ASSERT_TRUE(gate_->changed.wait_for(lock, 30s, [this] { return gate_->waiting < 2; })) << "the encoder is stuck";
      ++gate_->waiting;
    }
    const auto width = picture->width();
    const auto height = picture->height();
    session_->pushVideo(PixelBuffer::crop(std::move(picture), width, height, [gate = gate_] {
      const std::lock_guard lock(gate->mutex);
      --gate->waiting;
      gate->changed.notify_all();
    }));
  }

  void liveSessionLiveStateDidChange(ZelLiveSession&, std::uint64_t state) override {
    const std::lock_guard lock(gate_->mutex);
    gate_->connected = gate_->connected || state == ZelStreamSocketStatusConnected;
    gate_->changed.notify_all();
  }

  bool waitUntilConnected() {
    std::unique_lock lock(gate_->mutex);
    return gate_->changed.wait_for(lock, 10s, [this] { return gate_->connected; });
  }

 private:
  struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    int waiting = 0;
    bool connected = false;
  };
  const std::shared_ptr<ZelLiveSession> session_;
  const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
};

/// The numbers that follow each `mark`.
std::vector<double> timesAfter(const std::string& text, const std::string& mark) {
  std::vector<double> times;
  for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
    times.push_back(std::stod(text.substr(at + mark.size())));
  }
  return times;
}

/// How much later the picture is than the sound at every flash of a recorded test card, in seconds, as a player shows
/// it: ffmpeg tells when the white field stops being dark, and when silence stops.
std::vector<double> offsets(const std::string& path) {
  const auto found = runProgram({"ffmpeg", "-v", "info", "-nostats", "-i", path, "-vf",
                                 "crop=iw/4:ih/8:iw*3/8:ih/5,blackdetect=d=0.1:pic_th=0.9:pix_th=0.85", "-af",
                                 "silencedetect=noise=-24dB:d=0.3", "-f", "null", "-"});
  const auto beeps = timesAfter(found.errors, "silence_end: ");
  auto flashes = timesAfter(found.errors, "black_end:");
  if (!flashes.empty()) {
    flashes.pop_back();  // Where the recording ends, the dark does too.
  }
  std::vector<double> differences;
  for (const double flash : flashes) {
    const auto beep = std::min_element(beeps.begin(), beeps.end(), [&](double one, double other) {
      return std::abs(one - flash) < std::abs(other - flash);
    });
    if (beep != beeps.end() && std::abs(*beep - flash) < 0.5) {
      differences.push_back(flash - *beep);
    }
  }
  return differences;
}

TEST_F(ServerTest, SoundAndPictureStayTogetherForTenMinutes) {
  constexpr auto length = 600s;
  constexpr PictureSize size{160, 90};
  PublishOptions options;
  options.bitRate = 200'000;
  std::string error;
  const auto video = makeVideoConfiguration(options, size, 0, error);
  ASSERT_TRUE(video) << error;
  const auto audio = ZelLiveAudioConfiguration::defaultConfiguration();
  const auto session = ZelLiveSession::create(audio, video, captureType);
  const auto sink = std::make_shared<EagerSink>(session);
  session->setDelegate(sink);
  session->setInputVideoFrameRate(video->videoFrameRate());
  session->setVideoEncoderOptions({"libx264", "ultrafast"});
  const auto info = std::make_shared<ZelLiveStreamInfo>();
  info->setUrl(server->url("sync"));
  info->audioConfiguration = audio;
  info->videoConfiguration = video;
  session->startLive(info);
  ASSERT_TRUE(sink->waitUntilConnected());

  const auto source = TestCardSource::create(size);
  MediaFeed feed(*source, *sink, video->videoFrameRate());
  while (feed.position() < length) {
    ASSERT_TRUE(feed.step());
  }
  // The last seconds in real time: the send buffer empties meanwhile.
  Pacer pacer(1s);
  const auto clock = [] { return std::chrono::steady_clock::now().time_since_epoch(); };
  pacer.start(clock() - feed.position());
  while (feed.position() < length + 4s) {
    std::this_thread::sleep_for(pacer.due(feed.next(), clock()) - clock());
    ASSERT_TRUE(feed.step());
  }
  ASSERT_EQ(feed.skipped(), 0);
  session->stopLive();
  EXPECT_TRUE(session->waitUntilStopped(2s));
  const auto measured = offsets(server->finishedRecording("sync"));
  ASSERT_GE(measured.size(), 600U);
  for (std::size_t i = 0; i < measured.size(); ++i) {
    ASSERT_LE(std::abs(measured[i]), 0.040) << "flash " << i;
  }
  const auto [least, most] = std::minmax_element(measured.begin(), measured.end());
  std::printf("picture later than sound by %.1f to %.1f ms in %zu flashes\n", *least * 1000, *most * 1000,
              measured.size());
}

}  // namespace
}  // namespace zellive::test
