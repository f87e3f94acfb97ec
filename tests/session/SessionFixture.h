#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "zellive/session/ZelLiveSession.h"

namespace zellive::test {

/// An encoder that answers each picture at once with one NAL unit; the first picture and forced ones are key frames.
class InstantVideoEncoder : public VideoCompressionService {
 public:
  class Session : public VideoCompressionSession {
   public:
    Session(InstantVideoEncoder& owner, OutputHandler output) : owner_(owner), output_(std::move(output)) {}
    int encodeFrame(const std::shared_ptr<PixelBuffer>&, std::int64_t, VideoFrameProperties properties,
                    std::uint64_t reference) override {
      const auto bytes = [](std::vector<std::uint8_t> content) { return Data::copyOf(content); };
      VideoSample sample;
      sample.sync = properties.forceKeyFrame;
      sample.data = bytes(sample.sync ? std::vector<std::uint8_t>{0, 0, 0, 1, 0x65}
                                      : std::vector<std::uint8_t>{0, 0, 0, 1, 0x41});
      sample.sps = bytes({0x67, 0x64, 0, 31});
      sample.pps = bytes({0x68, 0xEE});
      owner_.keyFrames.push_back(sample.sync);
      output_(reference, 0, &sample);
      return 0;
    }
    void completeFrames() override {}
    void setBitRate(std::int64_t rate, double, std::int64_t) override { owner_.bitRates.push_back(rate); }
    [[nodiscard]] std::string encoderName() const override { return "instant"; }

   private:
    InstantVideoEncoder& owner_;
    OutputHandler output_;
  };

  std::unique_ptr<VideoCompressionSession> create(const VideoCompressionSettings&,
                                                  VideoCompressionSession::OutputHandler output, int& status) override {
    status = 0;
    return std::make_unique<Session>(*this, std::move(output));
  }
  std::vector<VideoEncoderDescription> available() override { return {{"instant", false}}; }

  std::vector<bool> keyFrames;
  std::vector<std::int64_t> bitRates;
};

/// An encoder that answers each chunk at once with one unit of two bytes.
class InstantAudioEncoder : public AudioConverterService {
 public:
  struct Converter : AudioConverter {
    int setEncodeBitRate(std::uint32_t) override { return 0; }
    int convert(std::span<const std::uint8_t>, std::uint64_t reference, const OutputHandler& output) override {
      output(reference, Data::copyOf(std::vector<std::uint8_t>{0x21, 0x10}));
      return 0;
    }
  };
  std::unique_ptr<AudioConverter> create(const AudioStreamBasicDescription&, const AudioStreamBasicDescription&,
                                         int& status) override {
    status = 0;
    return std::make_unique<Converter>();
  }
};

/// What an application would write, remembering what it heard.
struct RecordingDelegate : ZelLiveSessionDelegate {
  void liveSessionLiveStateDidChange(ZelLiveSession&, std::uint64_t state) override { states.push_back(state); }
  void liveSessionErrorCode(ZelLiveSession&, std::uint64_t code) override { errors.push_back(code); }
  void liveSessionLiveBufferCount(ZelLiveSession&, std::uint64_t count) override { counts.push_back(count); }
  void liveSessionDebugInfo(ZelLiveSession&, const ZelLiveDebug& info) override { infos.push_back(info); }

  std::vector<std::uint64_t> states;
  std::vector<std::uint64_t> errors;
  std::vector<std::uint64_t> counts;
  std::vector<ZelLiveDebug> infos;
};

/// An account that answers as the test says and remembers what it was asked.
struct ScriptedAccount : QMZAccount {
  void createLiveRoomWithParams(const QMZDictionary&, QMZCompletion) override {}
  void initLiveRoomIdWithParams(const QMZDictionary&, QMZCompletion) override {}
  void getLivePushUrlWithRoomId(const std::string& roomId, QMZCompletion completion) override {
    urlRequests.push_back(roomId);
    pending.push_back(std::move(completion));
  }
  void getLivePullUrlWithRoomId(const std::string&, QMZCompletion) override {}
  void liveUpdateStatus(const QMZDictionary& status) override { statuses.push_back(status); }
  void livePostData(const QMZDictionary& data) override { figures.push_back(data); }
  void stopLiveWithRoomId(const std::optional<std::string>& roomId) override { stops.push_back(roomId); }

  std::vector<std::string> urlRequests;
  std::vector<QMZCompletion> pending;
  std::vector<QMZDictionary> statuses;
  std::vector<QMZDictionary> figures;
  std::vector<std::optional<std::string>> stops;
};

struct ScriptedCompanion : QMZSdwan, QMZLoginManager, std::enable_shared_from_this<ScriptedCompanion> {
  [[nodiscard]] std::shared_ptr<QMZLoginManager> loginManager() const override {
    return std::const_pointer_cast<ScriptedCompanion>(shared_from_this());
  }
  [[nodiscard]] bool hasLogin() const override { return true; }
  [[nodiscard]] std::shared_ptr<QMZAccount> activeAccount() const override { return account; }
  std::shared_ptr<ScriptedAccount> account = std::make_shared<ScriptedAccount>();
};

/// A session whose publisher never touches a network: the test reports its statuses and sees what it is handed.
class ObservedSession : public ZelLiveSession {
 public:
  ObservedSession(AudioConfiguration audio, VideoConfiguration video, std::int64_t type,
                  std::shared_ptr<const Platform> platform)
      : ZelLiveSession(std::move(audio), std::move(video), type, std::move(platform)) {}
  void attach() { observeApplication(); }

  std::vector<std::shared_ptr<const ZelFrame>> handedOff;
  std::shared_ptr<ZelStreamRtmpSocket> publisher;

 protected:
  std::shared_ptr<ZelStreamRtmpSocket> makeSocket(std::shared_ptr<ZelLiveStreamInfo> streamInfo) override {
    publisher = ZelLiveSession::makeSocket(std::move(streamInfo));
    return publisher;
  }
  void pushSendBuffer(std::shared_ptr<const ZelFrame> frame) override {
    handedOff.push_back(frame);
    ZelLiveSession::pushSendBuffer(std::move(frame));
  }
};

/// A session of some type on the hand-driven platform. The publisher's URL cannot be parsed, so it never dials; its
/// statuses come from the test.
class SessionTest : public ::testing::Test {
 protected:
  static constexpr std::int64_t kPushed = ZelLiveInputAudio | ZelLiveInputVideo;

  SessionTest() {
    manual.videoCompression = videoEncoder;
    manual.audioConversion = audioEncoder;
    manual.companion = companion;
  }

  ~SessionTest() override {
    if (session) {
      session->publisher.reset();
      session.reset();
    }
    manual.runPending();  // What ends a stream runs after it, and holds the platform.
  }

  void make(std::int64_t type) {
    session = std::make_shared<ObservedSession>(audio, video, type, manual.platform());
    session->attach();
    session->setDelegate(delegate);
  }
  /// Makes, starts and connects.
  void connect(std::int64_t type) {
    make(type);
    session->startLive(info);
    session->socketStatus(*session->publisher, ZelStreamSocketStatusConnected);
    manual.runPending();
    delegate->states.clear();
  }
  /// 1024 samples of PCM, 21.33 ms.
  void pushAudio(int blocks = 1) {
    const std::vector<std::uint8_t> block(2048);
    for (int i = 0; i < blocks; ++i) {
      session->pushAudio(block);
    }
  }
  void pushPicture(int pictures = 1) {
    for (int i = 0; i < pictures; ++i) {
      session->pushVideo(PixelBuffer::create(PixelFormat::Planar, 72, 128));
      manual.runPending();
    }
  }
  /// Brings audio and video into step, so that frames are handed off.
  void align() {
    pushAudio(2);
    pushPicture();
    session->handedOff.clear();
  }
  [[nodiscard]] std::size_t handedOff(ZelFrameKind kind) const {
    std::size_t count = 0;
    for (const auto& frame : session->handedOff) {
      count += frame->kind() == kind ? 1 : 0;
    }
    return count;
  }

  ManualPlatform manual;
  std::shared_ptr<InstantVideoEncoder> videoEncoder = std::make_shared<InstantVideoEncoder>();
  std::shared_ptr<InstantAudioEncoder> audioEncoder = std::make_shared<InstantAudioEncoder>();
  std::shared_ptr<ScriptedCompanion> companion = std::make_shared<ScriptedCompanion>();
  std::shared_ptr<ZelLiveAudioConfiguration> audio = ZelLiveAudioConfiguration::defaultConfiguration();
  std::shared_ptr<ZelLiveVideoConfiguration> video =
      std::make_shared<ZelLiveVideoConfiguration>(ZelLiveVideoQualityMedium, kPushed, 1, manual.device);
  std::shared_ptr<ZelLiveStreamInfo> info = [this] {
    auto streamInfo = std::make_shared<ZelLiveStreamInfo>();
    streamInfo->setUrl("not a url");
    streamInfo->audioConfiguration = audio;
    streamInfo->videoConfiguration = video;
    return streamInfo;
  }();
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::shared_ptr<ObservedSession> session;
};

}  // namespace zellive::test
