#include "zellive/platform/linux/FfmpegAudioConversion.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "tests/codec/Decoders.h"

namespace zellive {
namespace {

constexpr int kFrames = 1024;

AudioStreamBasicDescription pcm(double rate, std::uint32_t channels) {
  return {rate,
          kAudioFormatLinearPCM,
          kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked,
          2 * channels,
          1,
          2 * channels,
          channels,
          16,
          0};
}

AudioStreamBasicDescription aac(double rate, std::uint32_t channels) {
  return {rate, kAudioFormatMPEG4AAC, 0, 0, 1024, 0, channels, 0, 0};
}

/// A tone of its own in each channel, whose loudness changes from chunk to chunk.
float toneAt(double rate, std::uint32_t channel, std::int64_t frame) {
  const double time = static_cast<double>(frame) / rate;
  const double loudness = 0.3 + 0.2 * std::sin(2 * std::numbers::pi * 3.1 * time);
  return static_cast<float>(loudness * std::sin(2 * std::numbers::pi * (channel == 0 ? 440 : 660) * time));
}

std::vector<std::uint8_t> chunkAt(double rate, std::uint32_t channels, std::int64_t chunk) {
  std::vector<std::uint8_t> bytes;
  for (std::int64_t frame = chunk * kFrames; frame < (chunk + 1) * kFrames; ++frame) {
    for (std::uint32_t channel = 0; channel < channels; ++channel) {
      const auto sample = static_cast<std::uint16_t>(std::lround(toneAt(rate, channel, frame) * 32767));
      bytes.push_back(static_cast<std::uint8_t>(sample));
      bytes.push_back(static_cast<std::uint8_t>(sample >> 8));
    }
  }
  return bytes;
}

TEST(FfmpegAudioConversion, EachUnitDecodesToTheChunkOfItsReference) {
  const struct {
    double rate;
    std::uint32_t channels;
    std::array<std::uint8_t, 2> config;
  } cases[] = {{48000, 1, {0x11, 0x88}}, {44100, 2, {0x12, 0x10}}, {16000, 2, {0x14, 0x10}}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.rate);
    int status = 0;
    const auto converter =
        makeFfmpegAudioConversion()->create(pcm(test.rate, test.channels), aac(test.rate, test.channels), status);
    ASSERT_NE(converter, nullptr);
    EXPECT_EQ(status, 0);
    ASSERT_EQ(converter->setEncodeBitRate(128000), 0);
    test::AacDecoder decoder(test.config);
    std::int64_t units = 0;
    constexpr int chunks = 40;
    for (int chunk = 0; chunk < chunks; ++chunk) {
      const auto output = [&](std::uint64_t reference, const Data& unit) {
        ASSERT_EQ(reference, 5000U + static_cast<std::uint64_t>(units) * 21);
        ASSERT_GT(unit.length(), 2U);
        EXPECT_FALSE(unit.bytes()[0] == 0xFF && (unit.bytes()[1] & 0xF0) == 0xF0) << "an ADTS header";
        const auto decoded = decoder.decode(unit.span());
        ASSERT_EQ(decoded.size(), test.channels);
        // The first unit has no predecessor to overlap with.
        for (std::uint32_t channel = 0; units > 0 && channel < test.channels; ++channel) {
          double signal = 0;
          double noise = 0;
          for (int frame = 0; frame < kFrames; ++frame) {
            const double wanted = toneAt(test.rate, channel, units * kFrames + frame);
            const double got = decoded[channel][static_cast<std::size_t>(frame)];
            signal += wanted * wanted;
            noise += (wanted - got) * (wanted - got);
          }
          EXPECT_GT(signal, 100 * noise) << "unit " << units << " channel " << channel;
        }
        ++units;
      };
      ASSERT_EQ(converter->convert(chunkAt(test.rate, test.channels, chunk),
                                   5000 + static_cast<std::uint64_t>(chunk) * 21, output),
                0);
    }
    EXPECT_GE(units, chunks - 3);
  }
}

TEST(FfmpegAudioConversion, BitRateSetsTheSizeOfUnits) {
  const auto spent = [](std::uint32_t bitRate) {
    int status = 0;
    const auto converter = makeFfmpegAudioConversion()->create(pcm(48000, 1), aac(48000, 1), status);
    EXPECT_EQ(converter->setEncodeBitRate(bitRate), 0);
    std::mt19937 random(3);
    std::size_t bytes = 0;
    std::size_t units = 0;
    std::vector<std::uint8_t> chunk(kFrames * 2);
    for (int index = 0; index < 100; ++index) {
      std::generate(chunk.begin(), chunk.end(), [&] { return static_cast<std::uint8_t>(random()); });
      EXPECT_EQ(converter->convert(chunk, 0,
                                   [&](std::uint64_t, const Data& unit) {
                                     bytes += unit.length();
                                     ++units;
                                   }),
                0);
    }
    return static_cast<double>(bytes) * 8 * 48000 / (static_cast<double>(units) * kFrames);
  };
  EXPECT_NEAR(spent(64000), 64000, 12000);
  EXPECT_NEAR(spent(160000), 160000, 24000);
}

TEST(FfmpegAudioConversion, RefusesWhatNoEncoderTakes) {
  auto floats = pcm(48000, 1);
  floats.mFormatFlags = 1;
  const struct {
    std::string name;
    AudioStreamBasicDescription input;
    AudioStreamBasicDescription output;
  } cases[] = {
      {"no channel", pcm(48000, 0), aac(48000, 0)},
      {"15 channels", pcm(48000, 15), aac(48000, 15)},
      {"all channels", pcm(48000, 0xFFFFFFFF), aac(48000, 0xFFFFFFFF)},
      {"unknown rate", pcm(44000, 1), aac(44000, 1)},
      {"no rate", pcm(0, 1), aac(0, 1)},
      {"endless rate", pcm(INFINITY, 1), aac(INFINITY, 1)},
      {"resampling", pcm(48000, 1), aac(44100, 1)},
      {"remixing", pcm(48000, 2), aac(48000, 1)},
      {"floats", floats, aac(48000, 1)},
      {"PCM out", pcm(48000, 1), pcm(48000, 1)},
  };
  for (const auto& test : cases) {
    int status = 0;
    EXPECT_EQ(makeFfmpegAudioConversion()->create(test.input, test.output, status), nullptr) << test.name;
    EXPECT_NE(status, 0) << test.name;
  }
}

TEST(FfmpegAudioConversion, GoesOnAfterErrors) {
  int status = 0;
  const auto converter = makeFfmpegAudioConversion()->create(pcm(48000, 2), aac(48000, 2), status);
  ASSERT_NE(converter, nullptr);
  EXPECT_NE(converter->setEncodeBitRate(1), 0) << "one bit a second";
  EXPECT_EQ(converter->setEncodeBitRate(0), 0) << "the encoder's own choice";
  std::vector<std::uint64_t> references;
  const auto output = [&](std::uint64_t reference, const Data&) { references.push_back(reference); };
  const std::vector<std::uint8_t> chunk(kFrames * 4);
  for (std::uint64_t index = 0; index < 6; ++index) {
    EXPECT_NE(converter->convert(std::span(chunk).first(chunk.size() - 1), 99, output), 0);
    EXPECT_NE(converter->convert({}, 99, output), 0);
    EXPECT_EQ(converter->convert(chunk, index, output), 0);
  }
  EXPECT_NE(converter->setEncodeBitRate(64000), 0) << "too late";
  ASSERT_GE(references.size(), 3U);
  for (std::size_t index = 0; index < references.size(); ++index) {
    EXPECT_EQ(references[index], index);
  }
}

}  // namespace
}  // namespace zellive
