#include "zellive/codec/ZelHardwareAudioEncoder.h"

#include <gtest/gtest.h>

#include <limits>
#include <numeric>
#include <string>
#include <vector>

#include "tests/support/ManualPlatform.h"
#include "zellive/platform/linux/FfmpegAudioConversion.h"

namespace zellive {
namespace {

using Bytes = std::vector<std::uint8_t>;

/// Converters that give each chunk back as its unit, one chunk later if `looksAhead`.
class FakeConversion : public AudioConverterService {
 public:
  std::unique_ptr<AudioConverter> create(const AudioStreamBasicDescription& input,
                                         const AudioStreamBasicDescription& output, int& status) override {
    ++asked;
    in = input;
    out = output;
    status = createStatus;
    return createStatus == 0 ? std::make_unique<Converter>(*this) : nullptr;
  }

  int createStatus = 0;
  int convertStatus = 0;
  int rateStatus = 0;
  bool looksAhead = false;
  int asked = 0;
  AudioStreamBasicDescription in;
  AudioStreamBasicDescription out;
  std::uint32_t bitRate = 0;
  std::vector<Bytes> chunks;

 private:
  class Converter : public AudioConverter {
   public:
    explicit Converter(FakeConversion& owner) : owner_(owner) {}
    int setEncodeBitRate(std::uint32_t bitRate) override {
      owner_.bitRate = bitRate;
      return owner_.rateStatus;
    }
    int convert(std::span<const std::uint8_t> pcm, std::uint64_t reference, const OutputHandler& output) override {
      if (owner_.convertStatus != 0) {
        return owner_.convertStatus;
      }
      owner_.chunks.emplace_back(pcm.begin(), pcm.end());
      std::pair<std::uint64_t, Data> unit(reference, Data::copyOf(pcm));
      if (owner_.looksAhead) {
        std::swap(unit, held_);
      }
      if (unit.second) {
        output(unit.first, unit.second);
      }
      return 0;
    }

   private:
    FakeConversion& owner_;
    std::pair<std::uint64_t, Data> held_;
  };
};

struct Collector : ZelAudioEncodingDelegate {
  void audioEncoderAudioFrame(ZelAudioEncoding& encoder, std::shared_ptr<const ZelLiveAudioFrame> frame) override {
    sender = &encoder;
    stamps.push_back(frame->timestamp);
    frames.push_back(std::move(frame));
    if (onFrame) {
      onFrame();
    }
  }
  ZelAudioEncoding* sender = nullptr;
  std::vector<std::uint64_t> stamps;
  std::vector<std::shared_ptr<const ZelLiveAudioFrame>> frames;
  std::function<void()> onFrame;
};

class ZelHardwareAudioEncoderTest : public testing::Test {
 protected:
  ZelHardwareAudioEncoderTest() {
    manual_.audioConversion = conversion_;
    configuration_->setNumberOfChannels(1);
    configuration_->setAudioSampleRate(48000);
    configuration_->setAudioBitRate(128000);
  }
  void make() {
    encoder_ = ZelHardwareAudioEncoder::create(configuration_, manual_.platform());
    ASSERT_NE(encoder_, nullptr);
    encoder_->setDelegate(collector_);
  }
  /// The next `count` bytes of one long count.
  Bytes next(std::size_t count) {
    Bytes bytes(count);
    for (auto& byte : bytes) {
      byte = static_cast<std::uint8_t>(sent_++ % 251);
    }
    return bytes;
  }

  test::ManualPlatform manual_;
  test::LogCapture log_;
  std::shared_ptr<FakeConversion> conversion_ = std::make_shared<FakeConversion>();
  std::shared_ptr<ZelLiveAudioConfiguration> configuration_ = std::make_shared<ZelLiveAudioConfiguration>();
  std::shared_ptr<Collector> collector_ = std::make_shared<Collector>();
  std::shared_ptr<ZelHardwareAudioEncoder> encoder_;
  std::size_t sent_ = 0;
};

TEST_F(ZelHardwareAudioEncoderTest, AsksForItsConverterOnFirstUse) {
  configuration_->setNumberOfChannels(2);
  configuration_->setAudioSampleRate(44100);
  make();
  EXPECT_EQ(conversion_->asked, 0);
  encoder_->encodeAudioData({}, 0);
  encoder_->encodeAudioData({}, 0);
  EXPECT_EQ(conversion_->asked, 1);
  EXPECT_EQ(conversion_->bitRate, 128000U);
  const auto& in = conversion_->in;
  EXPECT_EQ(in.mSampleRate, 44100);
  EXPECT_EQ(in.mFormatID, kAudioFormatLinearPCM);
  EXPECT_EQ(in.mFormatFlags, 0x0CU);
  EXPECT_EQ(in.mBytesPerPacket, 4U);
  EXPECT_EQ(in.mFramesPerPacket, 1U);
  EXPECT_EQ(in.mBytesPerFrame, 4U);
  EXPECT_EQ(in.mChannelsPerFrame, 2U);
  EXPECT_EQ(in.mBitsPerChannel, 16U);
  const auto& out = conversion_->out;
  EXPECT_EQ(out.mSampleRate, 44100);
  EXPECT_EQ(out.mFormatID, kAudioFormatMPEG4AAC);
  EXPECT_EQ(out.mFramesPerPacket, 1024U);
  EXPECT_EQ(out.mChannelsPerFrame, 2U);
  EXPECT_EQ(out.mFormatFlags + out.mBytesPerPacket + out.mBytesPerFrame + out.mBitsPerChannel, 0U);
  EXPECT_EQ(ZelHardwareAudioEncoder::create(nullptr, manual_.platform()), nullptr);
}

TEST_F(ZelHardwareAudioEncoderTest, CutsAnyLengthsIntoUnitsWithTheStampOfTheCallThatCompletesThem) {
  const struct {
    std::string name;
    std::vector<std::size_t> lengths;  ///< Call n has stamp n.
    std::vector<std::uint64_t> stamps;
  } cases[] = {
      {"halves", {1024, 1024, 1024, 1024}, {1, 3}},
      {"5000 at once, then what is missing", {5000, 1143, 1}, {0, 0, 2}},
      {"empty calls", {0, 2048, 0, 2047, 0, 1}, {1, 5}},
      {"odd lengths", {1, 2047, 4097, 2046, 1}, {1, 2, 2, 4}},
      {"one remainder, several units", {100, 6044}, {1, 1, 1}},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    sent_ = 0;
    conversion_->chunks.clear();
    collector_->stamps.clear();
    make();
    Bytes all;
    for (std::size_t call = 0; call < test.lengths.size(); ++call) {
      const Bytes data = next(test.lengths[call]);
      all.insert(all.end(), data.begin(), data.end());
      encoder_->encodeAudioData(data, call);
    }
    EXPECT_EQ(collector_->stamps, test.stamps);
    Bytes encoded;
    for (const Bytes& chunk : conversion_->chunks) {
      ASSERT_EQ(chunk.size(), 2048U);
      encoded.insert(encoded.end(), chunk.begin(), chunk.end());
    }
    EXPECT_EQ(encoded, Bytes(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(encoded.size())));
  }
}

TEST_F(ZelHardwareAudioEncoderTest, OneByteAtATimeAndTenMegabytesAtOnce) {
  make();
  const Bytes large = next(10'000'000);
  encoder_->encodeAudioData(large, 7);
  EXPECT_EQ(collector_->frames.size(), 10'000'000U / 2048);
  for (std::size_t index = 0; index < 2048; ++index) {
    const Bytes one = next(1);
    encoder_->encodeAudioData(one, 8);
  }
  EXPECT_EQ(collector_->stamps.back(), 8U);
  EXPECT_EQ(collector_->frames.size(), 10'000'000U / 2048 + 1);
  EXPECT_EQ(conversion_->chunks.back().front(), 10'000'000 / 2048 * 2048 % 251);
}

TEST_F(ZelHardwareAudioEncoderTest, AUnitThatComesLateKeepsTheStampOfItsOwnChunk) {
  conversion_->looksAhead = true;
  make();
  for (const std::uint64_t stamp : {10, 31, 52, 74}) {
    encoder_->encodeAudioData(next(2048), stamp);
  }
  EXPECT_EQ(collector_->stamps, (std::vector<std::uint64_t>{10, 31, 52}));
}

TEST_F(ZelHardwareAudioEncoderTest, FramesCarryTheConfigurationsBytes) {
  make();
  encoder_->encodeAudioData(next(2048), 1);
  encoder_->encodeAudioData(next(2048), 2);
  ASSERT_EQ(collector_->frames.size(), 2U);
  EXPECT_EQ(collector_->sender, encoder_.get());
  for (const auto& frame : collector_->frames) {
    ASSERT_EQ(frame->audioInfo.length(), 2U);
    EXPECT_EQ(frame->audioInfo.bytes()[0], 0x11);
    EXPECT_EQ(frame->audioInfo.bytes()[1], 0x88);
  }
  EXPECT_EQ(collector_->frames[0]->audioInfo.bytes(), collector_->frames[1]->audioInfo.bytes());
}

TEST_F(ZelHardwareAudioEncoderTest, EveryCallTriesAgainForAConverter) {
  conversion_->createStatus = -7;
  make();
  encoder_->encodeAudioData(next(1000), 1);
  encoder_->encodeAudioData(next(2048), 2);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: AudioConverterNewSpecific() error, "), 2U);
  EXPECT_EQ(log_.count(LogLevel::Error, "Code=-7"), 2U);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: AudioConverterFillComplexBuffer() error, "), 1U);
  conversion_->createStatus = 0;
  conversion_->rateStatus = -1;
  encoder_->encodeAudioData(next(1048), 3);
  EXPECT_EQ(collector_->stamps, std::vector<std::uint64_t>{3});
  EXPECT_EQ(log_.count(LogLevel::Warning, "refuses 128000 bit/s"), 1U);
}

TEST_F(ZelHardwareAudioEncoderTest, AConversionErrorCostsItsChunkOnly) {
  make();
  conversion_->convertStatus = -9;
  encoder_->encodeAudioData(next(2048), 1);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: AudioConverterFillComplexBuffer() error, -9"), 1U);
  conversion_->convertStatus = 0;
  encoder_->encodeAudioData(next(2048), 2);
  EXPECT_EQ(collector_->stamps, std::vector<std::uint64_t>{2});
}

TEST_F(ZelHardwareAudioEncoderTest, AbsurdChannelCountsAreRefusedByTheConverter) {
  manual_.audioConversion = makeFfmpegAudioConversion();
  for (const std::uint64_t channels :
       {std::uint64_t{0}, std::uint64_t{15}, std::uint64_t{1} << 53, std::numeric_limits<std::uint64_t>::max()}) {
    const test::LogCapture log;
    configuration_->setNumberOfChannels(channels);
    make();
    encoder_->encodeAudioData(next(100'000), 1);
    EXPECT_TRUE(collector_->frames.empty()) << channels;
    EXPECT_EQ(log.count(LogLevel::Error, "Live: AudioConverterNewSpecific() error, "), 1U) << channels;
  }
}

TEST_F(ZelHardwareAudioEncoderTest, MayBeDestroyedByItsDelegate) {
  make();
  collector_->onFrame = [this] { encoder_.reset(); };
  const std::weak_ptr<ZelHardwareAudioEncoder> weak = encoder_;
  encoder_->encodeAudioData(next(4096), 1);
  EXPECT_EQ(collector_->frames.size(), 2U);
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(log_.count(LogLevel::Information, "<ZelHardwareAudioEncoder: 0x"), 1U);
}

}  // namespace
}  // namespace zellive
