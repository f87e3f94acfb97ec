#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/codec/FakeCompression.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::test {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

/// An encoder that answers each chunk at once with one unit of two bytes.
struct InstantAudioEncoder : AudioConverterService {
  struct Converter : AudioConverter {
    int setEncodeBitRate(std::uint32_t) override { return 0; }
    int convert(std::span<const std::uint8_t>, std::uint64_t reference, const OutputHandler& output) override {
      output(reference, Data::copyOf(Bytes{0x21, 0x10}));
      return 0;
    }
  };
  std::unique_ptr<AudioConverter> create(const AudioStreamBasicDescription&, const AudioStreamBasicDescription&,
                                         int& status) override {
    status = 0;
    return std::make_unique<Converter>();
  }
};

/// The companion with its account, which answers as the test says and remembers what it was told.
struct ScriptedRoom : QMZSdwan, QMZLoginManager, QMZAccount, std::enable_shared_from_this<ScriptedRoom> {
  [[nodiscard]] std::shared_ptr<ScriptedRoom> self() const {
    return std::const_pointer_cast<ScriptedRoom>(shared_from_this());
  }
  [[nodiscard]] std::shared_ptr<QMZLoginManager> loginManager() const override { return self(); }
  [[nodiscard]] std::shared_ptr<QMZAccount> activeAccount() const override { return self(); }
  [[nodiscard]] bool hasLogin() const override { return true; }
  void createLiveRoomWithParams(const QMZDictionary&, QMZCompletion) override {}
  void initLiveRoomIdWithParams(const QMZDictionary&, QMZCompletion) override {}
  void getLivePullUrlWithRoomId(const std::string&, QMZCompletion) override {}
  void getLivePushUrlWithRoomId(const std::string&, QMZCompletion completion) override {
    urlRequests.push_back(std::move(completion));
  }
  void liveUpdateStatus(const QMZDictionary& status) override {
    told += std::get<std::string>(status.at("liveStatus").value) + " ";
    onStatus();
  }
  void livePostData(const QMZDictionary& data) override {
    for (const char* key : {"videoFPS", "audioFPS", "bitRate", "width", "height"}) {
      told += std::to_string(static_cast<int>(std::get<double>(data.at(key).value))) + " ";
    }
  }
  void stopLiveWithRoomId(const std::optional<std::string>& roomId) override { told += "stop " + roomId.value_or("-"); }

  std::vector<QMZCompletion> urlRequests;
  std::string told;  ///< Statuses, figures, and the end.
  std::function<void()> onStatus = [] {};
};

/// What an application would write: notes what it heard, such as "state 2, error 205, figures, ", and where if not on
/// the main queue.
struct RecordingDelegate : ZelLiveSessionDelegate {
  explicit RecordingDelegate(std::shared_ptr<Queue> mainQueue) : main(std::move(mainQueue)) {}
  void liveSessionLiveStateDidChange(ZelLiveSession&, std::uint64_t state) override { note("state", state); }
  void liveSessionErrorCode(ZelLiveSession&, std::uint64_t code) override { note("error", code); }
  void liveSessionLiveBufferCount(ZelLiveSession&, std::uint64_t count) override { note("count", count); }
  void liveSessionDebugInfo(ZelLiveSession&, const ZelLiveDebug& info) override {
    note("figures", static_cast<std::uint64_t>(info.totalFrame));
  }
  void note(const std::string& what, std::uint64_t number) {
    heard += what + " " + std::to_string(number) + (main->isCurrent() ? ", " : " elsewhere, ");
  }
  const std::shared_ptr<Queue> main;
  std::string heard;
};

/// Writes down what it hands to its publisher: "a21 K42 p42 s42 " are sound, a key frame, another picture and an SEI.
struct ObservedSession : ZelLiveSession {
  using ZelLiveSession::observeApplication;
  ObservedSession(AudioConfiguration audio, VideoConfiguration video, std::int64_t type,
                  std::shared_ptr<const Platform> platform)
      : ZelLiveSession(std::move(audio), std::move(video), type, std::move(platform)) {}
  void pushSendBuffer(std::shared_ptr<const ZelFrame> frame) override {
    const auto nalType = frame->data.bytes()[0] & 0x1F;
    const char kind = frame->kind() == ZelFrameKind::Audio ? 'a' : nalType == 5 ? 'K' : nalType == 6 ? 's' : 'p';
    handedOff += kind + std::to_string(frame->timestamp) + " ";
    ZelLiveSession::pushSendBuffer(std::move(frame));
  }
  std::string handedOff;
};

/// A session of some type on the hand-driven platform. Its URL cannot be parsed, so its publisher fails once and waits;
/// what publishers tell comes from the test.
class SessionTest : public ::testing::Test {
 protected:
  static constexpr std::int64_t kPushed = ZelLiveInputAudio | ZelLiveInputVideo;

  SessionTest() {
    manual.videoCompression = encoder;
    manual.audioConversion = std::make_shared<InstantAudioEncoder>();
    manual.companion = room;
    info->setUrl("not a url");
    info->roomId = "room";
  }
  ~SessionTest() override {
    session.reset();
    manual.runPending();  // What ends a stream runs after it, and holds the platform.
  }

  void make(std::int64_t type, std::shared_ptr<const Platform> platform = nullptr) {
    session = std::make_shared<ObservedSession>(audio, video, type, platform ? platform : manual.platform());
    session->observeApplication();
    session->setReconnectInterval(1'000'000);
    session->setDelegate(delegate);
  }
  void report(std::uint64_t status) { session->socketStatus(*publisher, status); }
  /// Makes, starts and connects.
  void connect(std::int64_t type, std::shared_ptr<const Platform> platform = nullptr) {
    make(type, std::move(platform));
    session->startLive(info);
    report(ZelStreamSocketStatusConnected);
    (void)heard();
  }
  /// 1024 samples of PCM, 21.33 ms.
  void pushAudio(int blocks = 1) {
    for (; blocks > 0; --blocks) {
      session->pushAudio(Bytes(2048));
    }
  }
  void pushPicture(int pictures = 1) {
    for (; pictures > 0; --pictures) {
      session->pushVideo(PixelBuffer::create(PixelFormat::Planar, 72, 128));
      manual.runPending();
    }
  }
  /// Brings audio and video into step, so that frames are handed off.
  void align() {
    pushAudio(2);
    pushPicture();
    (void)take();
  }
  /// The encoder gives NAL units with these headers.
  void give(const Bytes& headers) {
    for (const auto header : headers) {
      auto frame = std::make_shared<ZelLiveVideoFrame>();
      frame->isKeyFrame = header != 0x41;
      frame->data = Data::copyOf(Bytes{header, 1});
      session->videoEncoderVideoFrame(*ZelHardwareVideoEncoder::create(video, manual.platform()), frame);
    }
  }
  /// What was handed off since the last look, or how much of a kind.
  std::string take() { return std::exchange(session->handedOff, {}); }
  std::ptrdiff_t take(char kind) { return std::ranges::count(take(), kind); }
  /// What the application heard since then.
  std::string heard() {
    manual.runPending();
    return std::exchange(delegate->heard, {});
  }
  void post(const char* notification) { manual.notifications->post(notification); }

  std::shared_ptr<ObservedSession> session;
  ManualPlatform manual;
  /// In the middle of each message the application asks the session something, which it may.
  LogCapture log{[this, thread = std::this_thread::get_id()] {
    if (thread == std::this_thread::get_id() && session) {
      (void)session->streamInfo();
      (void)session->denoiseLevel();
    }
  }};
  std::shared_ptr<FakeCompression> encoder = std::make_shared<FakeCompression>();
  std::shared_ptr<ScriptedRoom> room = std::make_shared<ScriptedRoom>();
  std::shared_ptr<ZelLiveAudioConfiguration> audio = ZelLiveAudioConfiguration::defaultConfiguration();
  std::shared_ptr<ZelLiveVideoConfiguration> video =
      std::make_shared<ZelLiveVideoConfiguration>(ZelLiveVideoQualityMedium, kPushed, 1, manual.device);
  std::shared_ptr<ZelLiveStreamInfo> info = std::make_shared<ZelLiveStreamInfo>();
  /// Stands for the session's own wherever a publisher tells something.
  const std::shared_ptr<ZelStreamRtmpSocket> publisher =
      ZelStreamRtmpSocket::create(info, 0, 0, ManualPlatform().platform());
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>(manual.time->mainQueue());
};

}  // namespace zellive::test
