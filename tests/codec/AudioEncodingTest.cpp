#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

#include "tests/codec/TestMedia.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/codec/ZelHardwareAudioEncoder.h"
#include "zellive/platform/linux/FfmpegAudioConversion.h"

namespace zellive {
namespace {

using test::Bytes;

struct Collector : ZelAudioEncodingDelegate {
  void audioEncoderAudioFrame(ZelAudioEncoding&, std::shared_ptr<const ZelLiveAudioFrame> frame) override {
    bytes += frame->data.length();
    frames.push_back(std::move(frame));
    onFrame();
  }
  std::vector<std::shared_ptr<const ZelLiveAudioFrame>> frames;
  std::size_t bytes = 0;
  std::function<void()> onFrame = [] {};
};

/// The encoder over the machine's own converter.
class ZelHardwareAudioEncoderTest : public testing::Test {
 protected:
  ZelHardwareAudioEncoderTest() { manual_.audioConversion = makeFfmpegAudioConversion(); }
  void make(std::uint64_t rate, std::uint64_t channels, std::uint64_t bitRate) {
    configuration_->setAudioSampleRate(rate);
    configuration_->setNumberOfChannels(channels);
    configuration_->setAudioBitRate(bitRate);
    encoder_ = ZelHardwareAudioEncoder::create(configuration_, manual_.platform());
    collector_ = std::make_shared<Collector>();
    encoder_->setDelegate(collector_);
  }

  test::ManualPlatform manual_;
  test::LogCapture log_;
  std::shared_ptr<ZelLiveAudioConfiguration> configuration_ = std::make_shared<ZelLiveAudioConfiguration>();
  std::shared_ptr<Collector> collector_;
  std::shared_ptr<ZelHardwareAudioEncoder> encoder_;
};

/// A tone of its own in each channel, whose loudness changes from unit to unit.
double toneAt(std::uint64_t rate, std::size_t channel, std::size_t frame) {
  const double time = 2 * std::numbers::pi * static_cast<double>(frame) / static_cast<double>(rate);
  return (0.3 + 0.2 * std::sin(3.1 * time)) * std::sin((channel == 0 ? 440 : 660) * time);
}

TEST_F(ZelHardwareAudioEncoderTest, EachUnitDecodesToItsChunkAndBearsTheStampOfTheCallThatCompletedIt) {
  const struct {
    std::uint64_t rate, channels;
    std::vector<std::size_t> lengths;  ///< Of the calls, over and over.
  } cases[] = {{48000, 1, {2048}},
               {44100, 2, {1, 4095, 0, 8193, 4094, 0, 1}},
               {16000, 2, {100, 24000}},
               {48000, 1, {1023, 1}},
               {48000, 1, {1'000'000}}};
  for (const auto& [rate, channels, lengths] : cases) {
    SCOPED_TRACE(lengths.front());
    make(rate, channels, 128000);
    Bytes pcm(std::max<std::size_t>(40 * 2048 * channels, lengths.front()));
    for (std::size_t index = 0; index < pcm.size() / 2; ++index) {
      const auto sample = std::lround(toneAt(rate, index % channels, index / channels) * 32767);
      pcm[2 * index] = static_cast<std::uint8_t>(sample);
      pcm[2 * index + 1] = static_cast<std::uint8_t>(sample >> 8);
    }
    std::vector<std::uint64_t> stamps;
    std::size_t at = 0;
    for (std::uint64_t call = 0; at < pcm.size(); ++call) {
      const auto part = std::span(pcm).subspan(at, std::min(lengths[call % lengths.size()], pcm.size() - at));
      at += part.size();
      stamps.resize(at / (2048 * channels), 5000 + call * 21);
      encoder_->encodeAudioData(part, 5000 + call * 21);
    }
    const auto& frames = collector_->frames;
    ASSERT_GE(frames.size() + 3, stamps.size());
    test::Decoder decoder(AV_CODEC_ID_AAC, frames[0]->audioInfo.span());
    for (std::size_t unit = 0; unit < std::min<std::size_t>(frames.size(), 100); ++unit) {
      ASSERT_EQ(frames[unit]->timestamp, stamps[unit]) << unit;
      EXPECT_EQ(frames[unit]->audioInfo.bytes(), frames[0]->audioInfo.bytes()) << "shared by all";
      const auto decoded = decoder.decode(frames[unit]->data);
      ASSERT_TRUE(decoded && decoded->ch_layout.nb_channels == static_cast<int>(channels));
      // The first unit has no predecessor to overlap with.
      for (std::size_t channel = 0; unit > 0 && channel < channels; ++channel) {
        const auto* samples = reinterpret_cast<const float*>(decoded->data[channel]);
        double signal = 0;
        double noise = 0;
        for (std::size_t frame = 0; frame < 1024; ++frame) {
          const double wanted = toneAt(rate, channel, unit * 1024 + frame);
          signal += wanted * wanted;
          noise += (wanted - samples[frame]) * (wanted - samples[frame]);
        }
        EXPECT_GT(signal, 100 * noise) << "unit " << unit << " channel " << channel;
      }
    }
  }
}

TEST_F(ZelHardwareAudioEncoderTest, BitRateSetsTheSizeOfUnits) {
  std::mt19937 random(3);
  Bytes noise(100 * 2048);
  std::ranges::generate(noise, [&] { return static_cast<std::uint8_t>(random()); });
  for (const std::uint64_t bitRate : {64000, 160000}) {
    make(48000, 1, bitRate);
    encoder_->encodeAudioData(noise, 0);
    const double seconds = static_cast<double>(collector_->frames.size()) * 1024 / 48000;
    EXPECT_NEAR(static_cast<double>(collector_->bytes) * 8 / seconds, static_cast<double>(bitRate),
                static_cast<double>(bitRate) * 0.18);
  }
}

TEST_F(ZelHardwareAudioEncoderTest, EveryCallTriesAgainForAConverter) {
  make(44000, 1, 1);
  const Bytes pcm(2048);
  encoder_->encodeAudioData(std::span(pcm).first(1000), 1);
  encoder_->encodeAudioData(pcm, 2);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: AudioConverterNewSpecific() error, "), 2U);
  EXPECT_EQ(log_.count(LogLevel::Error, "Live: AudioConverterFillComplexBuffer() error, "), 1U);
  configuration_->setAudioSampleRate(48000);
  for (std::uint64_t stamp = 3; stamp < 8; ++stamp) {
    encoder_->encodeAudioData(std::span(pcm).first(stamp == 3 ? 1048 : 2048), stamp);
  }
  ASSERT_FALSE(collector_->frames.empty());
  EXPECT_EQ(collector_->frames[0]->timestamp, 3U);
  EXPECT_EQ(log_.count(LogLevel::Warning, "refuses 1 bit/s"), 1U);
  EXPECT_EQ(log_.count(""), 4U);
  EXPECT_EQ(ZelHardwareAudioEncoder::create(nullptr, manual_.platform()), nullptr);
}

TEST_F(ZelHardwareAudioEncoderTest, AbsurdFormatsAreRefused) {
  constexpr auto most = ~std::uint64_t{0};
  for (const auto& [rate, channels] : std::vector<std::pair<std::uint64_t, std::uint64_t>>{
           {0, 1}, {most, 2}, {48000, 0}, {48000, 15}, {48000, std::uint64_t{1} << 53}, {48000, most}}) {
    const test::LogCapture log;
    make(rate, channels, 128000);
    encoder_->encodeAudioData(Bytes(100'000), 1);
    EXPECT_TRUE(collector_->frames.empty()) << channels;
    EXPECT_EQ(log.count(LogLevel::Error, "Live: AudioConverterNewSpecific() error, "), 1U) << channels;
  }
}

TEST_F(ZelHardwareAudioEncoderTest, MayBeDestroyedByItsDelegate) {
  make(48000, 1, 128000);
  collector_->onFrame = [this] { encoder_.reset(); };
  const std::weak_ptr<ZelHardwareAudioEncoder> weak = encoder_;
  encoder_->encodeAudioData(Bytes(20 * 2048), 1);
  EXPECT_GE(collector_->frames.size(), 17U);
  EXPECT_TRUE(weak.expired());
  EXPECT_EQ(log_.count(LogLevel::Information, "<ZelHardwareAudioEncoder: 0x"), 1U);
}

}  // namespace
}  // namespace zellive
