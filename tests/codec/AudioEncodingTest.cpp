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
    bits += 8 * static_cast<double>(frame->data.length());
    frames.push_back(std::move(frame));
    onFrame();
  }
  std::vector<std::shared_ptr<const ZelLiveAudioFrame>> frames;
  double bits = 0;
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
  } cases[] = {{48000, 1, {2048}}, {44100, 2, {1, 4095, 0, 8193, 4094, 0, 1}}, {16000, 2, {100, 24000}}};
  for (const auto& [rate, channels, lengths] : cases) {
    SCOPED_TRACE(rate);
    make(rate, channels, 128000);
    std::vector<std::int16_t> tones(40 * 1024 * channels);
    for (std::size_t index = 0; index < tones.size(); ++index) {
      tones[index] = static_cast<std::int16_t>(toneAt(rate, index % channels, index / channels) * 32767);
    }
    const std::span pcm(reinterpret_cast<const std::uint8_t*>(tones.data()), 2 * tones.size());
    std::vector<std::uint64_t> stamps;
    std::size_t at = 0;
    for (std::uint64_t call = 0; at < pcm.size(); ++call) {
      const auto part = pcm.subspan(at, std::min(lengths[call % lengths.size()], pcm.size() - at));
      at += part.size();
      stamps.resize(at / (2048 * channels), 5000 + call * 21);
      encoder_->encodeAudioData(part, 5000 + call * 21);
    }
    const auto& frames = collector_->frames;
    ASSERT_GE(frames.size() + 3, stamps.size());
    test::Decoder decoder(AV_CODEC_ID_AAC, frames[0]->audioInfo.span());
    for (std::size_t unit = 0; unit < frames.size(); ++unit) {
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
  for (const int bitRate : {64000, 160000}) {
    make(48000, 1, static_cast<std::uint64_t>(bitRate));
    encoder_->encodeAudioData(noise, 0);
    EXPECT_NEAR(collector_->bits * 48000 / 1024 / static_cast<double>(collector_->frames.size()), bitRate,
                bitRate * 0.18);
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
  encoder_->encodeAudioData(std::span(pcm).first(1048), 3);
  encoder_->encodeAudioData(Bytes(4 * 2048), 4);
  ASSERT_FALSE(collector_->frames.empty());
  EXPECT_EQ(collector_->frames[0]->timestamp, 3U);
  EXPECT_EQ(log_.count(LogLevel::Warning, "refuses 1 bit/s"), 1U);
  EXPECT_EQ(log_.count(""), 4U);
  EXPECT_EQ(ZelHardwareAudioEncoder::create(nullptr, manual_.platform()), nullptr);
}

TEST_F(ZelHardwareAudioEncoderTest, AbsurdFormatsAreRefused) {
  for (const auto& [rate, channels] : {std::pair{0ULL, 1ULL},
                                       {~0ULL, 2ULL},
                                       {48000ULL, 0ULL},
                                       {48000ULL, 15ULL},
                                       {48000ULL, 1ULL << 53},
                                       {48000ULL, ~0ULL}}) {
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
  encoder_->encodeAudioData(Bytes(20 * 2048), 1);
  EXPECT_GE(collector_->frames.size(), 17U);
  EXPECT_EQ(log_.count(LogLevel::Information, "<ZelHardwareAudioEncoder: 0x"), 1U);
}

}  // namespace
}  // namespace zellive
