#include "zellive/platform/linux/FfmpegVideoCompression.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "tests/codec/Decoders.h"
#include "tests/codec/Scenes.h"
#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

using test::colourScene;
using test::H264Decoder;
using test::nalTypes;
using test::restlessScene;

VideoCompressionSettings settingsFor(std::int32_t width, std::int32_t height, std::int64_t bitRate) {
  VideoCompressionSettings settings;
  settings.width = width;
  settings.height = height;
  settings.maxKeyFrameInterval = 1000;
  settings.expectedFrameRate = 30;
  settings.averageBitRate = bitRate;
  settings.dataRateLimitBytes = static_cast<double>(bitRate) * 1.5 / 8;
  settings.options.encoder = "libx264";
  return settings;
}

/// A session with all that it has given.
struct Recorder {
  explicit Recorder(const VideoCompressionSettings& settings) {
    session = makeFfmpegVideoCompression()->create(
        settings,
        [this](std::uint64_t reference, int outputStatus, const VideoSample* sample) {
          EXPECT_EQ(outputStatus, 0);
          ASSERT_NE(sample, nullptr);
          references.push_back(reference);
          samples.push_back(*sample);
        },
        status);
  }

  int encode(const std::shared_ptr<PixelBuffer>& picture, VideoFrameProperties properties = {}) {
    const std::int64_t time = next++;
    return session->encodeFrame(picture, time, properties, static_cast<std::uint64_t>(time) * 33);
  }
  [[nodiscard]] std::vector<int> syncSamples() const {
    std::vector<int> found;
    for (std::size_t index = 0; index < samples.size(); ++index) {
      if (samples[index].sync) {
        found.push_back(static_cast<int>(index));
      }
    }
    return found;
  }
  [[nodiscard]] double bitsIn(std::size_t first, std::size_t count) const {
    double bits = 0;
    for (std::size_t index = first; index < first + count; ++index) {
      bits += 8 * static_cast<double>(samples.at(index).data.length());
    }
    return bits;
  }

  int status = 1;
  std::int64_t next = 1;
  std::vector<std::uint64_t> references;
  std::vector<VideoSample> samples;
  std::unique_ptr<VideoCompressionSession> session;
};

TEST(FfmpegVideoCompression, MakesOneSliceAPictureWithKeyFramesAndSeiWhereAsked) {
  Recorder recorder(settingsFor(320, 180, 800'000));
  ASSERT_EQ(recorder.status, 0);
  EXPECT_EQ(recorder.session->encoderName(), "libx264");
  constexpr int pictures = 60;
  for (int index = 0; index < pictures; ++index) {
    const bool key = index == 20 || index == 45;
    // At 21 the SEI is asked for a picture that does not become a key frame.
    ASSERT_EQ(recorder.encode(restlessScene(320, 180, index),
                              {.forceKeyFrame = key, .leadingSei = index == 20 || index == 21}),
              0);
    ASSERT_EQ(recorder.references.size(), static_cast<std::size_t>(index) + 1) << "a picture was held back";
  }
  EXPECT_EQ(recorder.syncSamples(), (std::vector{0, 20, 45}));
  H264Decoder decoder;
  for (int index = 0; index < pictures; ++index) {
    const VideoSample& sample = recorder.samples[static_cast<std::size_t>(index)];
    EXPECT_EQ(recorder.references[static_cast<std::size_t>(index)], 33U * static_cast<std::uint64_t>(index + 1));
    EXPECT_EQ(nalTypes(sample), index == 20 ? (std::vector{6, 5}) : sample.sync ? (std::vector{5}) : (std::vector{1}));
    const auto frame = decoder.decode(sample);
    ASSERT_NE(frame, nullptr) << "picture " << index << " does not decode at once";
    EXPECT_EQ(frame->pict_type, sample.sync ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_P);
  }
  EXPECT_EQ(decoder.context().profile, FF_PROFILE_H264_HIGH);
  EXPECT_EQ(decoder.context().has_b_frames, 0);
  const VideoSample& first = recorder.samples.front();
  ASSERT_GT(first.pps.length(), 1U);
  EXPECT_EQ(first.sps.bytes()[0] & 0x1F, 7);
  EXPECT_EQ(first.pps.bytes()[0] & 0x1F, 8);
  EXPECT_EQ(first.pps.bytes()[1] & 0xE0, 0xE0) << "ids 0 and 0, then CABAC";
}

TEST(FfmpegVideoCompression, ThreadsHoldPicturesBackUntilCompleted) {
  if (std::thread::hardware_concurrency() < 2) {
    GTEST_SKIP() << "one core: the encoder never uses two threads";
  }
  auto settings = settingsFor(320, 180, 1'000'000);
  settings.expectedFrameRate = 1000;
  Recorder recorder(settings);
  ASSERT_EQ(recorder.status, 0);
  for (int index = 0; index < 5; ++index) {
    ASSERT_EQ(recorder.encode(restlessScene(320, 180, index), {.forceKeyFrame = index == 3, .leadingSei = index == 3}),
              0);
  }
  EXPECT_LT(recorder.samples.size(), 5U);
  recorder.session->completeFrames();
  ASSERT_EQ(recorder.samples.size(), 5U);
  EXPECT_EQ(recorder.references, (std::vector<std::uint64_t>{33, 66, 99, 132, 165}));
  EXPECT_EQ(nalTypes(recorder.samples[3]), (std::vector{6, 5}));

  ASSERT_EQ(recorder.encode(restlessScene(320, 180, 6)), 0);
  recorder.session->completeFrames();
  EXPECT_EQ(recorder.syncSamples(), (std::vector{0, 3, 5})) << "a completed stream goes on with a key frame";
  H264Decoder decoder;
  for (const VideoSample& sample : recorder.samples) {
    EXPECT_NE(decoder.decode(sample), nullptr);
  }
  ASSERT_EQ(recorder.encode(restlessScene(320, 180, 7)), 0);
  recorder.session.reset();
  EXPECT_EQ(recorder.samples.size(), 6U) << "a destroyed session gives nothing more";
}

TEST(FfmpegVideoCompression, PayloadsOutliveTheirSession) {
  Recorder recorder(settingsFor(320, 180, 800'000));
  for (int index = 0; index < 4; ++index) {
    ASSERT_EQ(recorder.encode(restlessScene(320, 180, index)), 0);
  }
  recorder.session.reset();
  H264Decoder decoder;
  for (const VideoSample& sample : recorder.samples) {
    EXPECT_NE(decoder.decode(sample), nullptr);
  }
}

TEST(FfmpegVideoCompression, FollowsTheBitRateAndKeepsItsLimit) {
  Recorder recorder(settingsFor(320, 180, 1'500'000));
  ASSERT_EQ(recorder.status, 0);
  const struct {
    std::int64_t bitRate;
    std::size_t pictures;
  } stages[] = {{1'500'000, 90}, {400'000, 90}, {2'200'000, 90}};
  int index = 0;
  for (const auto& stage : stages) {
    if (index > 0) {
      std::thread([&] {
        recorder.session->setBitRate(stage.bitRate, static_cast<double>(stage.bitRate) * 1.5 / 8, 1);
      }).join();
    }
    const std::size_t begin = recorder.samples.size();
    for (std::size_t picture = 0; picture < stage.pictures; ++picture) {
      ASSERT_EQ(recorder.encode(restlessScene(320, 180, index), {.forceKeyFrame = index % 60 == 0}), 0);
      ++index;
    }
    const auto rate = static_cast<double>(stage.bitRate);
    // The first second is the change's.
    EXPECT_NEAR(recorder.bitsIn(begin + 30, 60) / 2, rate, 0.15 * rate);
    for (std::size_t window = begin + 30; window + 30 <= recorder.samples.size(); ++window) {
      EXPECT_LE(recorder.bitsIn(window, 30), 1.5 * rate) << "the second from picture " << window;
    }
  }
  EXPECT_EQ(recorder.syncSamples(), (std::vector{0, 60, 120, 180, 240})) << "a new rate costs no key frame";
}

TEST(FfmpegVideoCompression, ACutAfterAStillSceneKeepsTheLimitAndAddsNoKeyFrame) {
  constexpr double rate = 600'000;
  Recorder recorder(settingsFor(320, 180, static_cast<std::int64_t>(rate)));
  const auto still = colourScene(PixelFormat::Planar, 320, 180);
  for (int index = 0; index < 120; ++index) {
    const bool calm = index % 60 < 40;
    ASSERT_EQ(recorder.encode(calm ? still : restlessScene(320, 180, index)), 0);
  }
  EXPECT_EQ(recorder.syncSamples(), std::vector{0});
  for (std::size_t window = 0; window + 30 <= recorder.samples.size(); ++window) {
    EXPECT_LE(recorder.bitsIn(window, 30), 1.5 * rate) << "the second from picture " << window;
  }
}

TEST(FfmpegVideoCompression, KeyFrameIntervalIsCountedInFramesElseInSeconds) {
  const struct {
    std::uint64_t frames, seconds, rate;
    std::vector<int> expected;
  } cases[] = {
      {12, 1, 10, {0, 12, 24}},
      {0, 2, 10, {0, 20}},
      {0, 0, 10, {0}},
      {0, 1, 0, {0, 30}},
      {1, 0, 10, {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15,
                  16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31}},
      {std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::uint64_t>::max(), 10, {0}},
  };
  for (const auto& test : cases) {
    auto settings = settingsFor(64, 64, 300'000);
    settings.maxKeyFrameInterval = test.frames;
    settings.maxKeyFrameIntervalDuration = test.seconds;
    settings.expectedFrameRate = test.rate;
    Recorder recorder(settings);
    ASSERT_EQ(recorder.status, 0);
    for (int index = 0; index < 32; ++index) {
      ASSERT_EQ(recorder.encode(restlessScene(64, 64, index)), 0);
    }
    EXPECT_EQ(recorder.syncSamples(), test.expected) << test.frames << " frames, " << test.seconds << " s";
  }
}

TEST(FfmpegVideoCompression, EveryFormatGivesTheRightPicture) {
  using enum PixelFormat;
  const struct {
    std::string name;
    PixelFormat first;  ///< Settles the stream's range.
    PixelFormat second;
    std::size_t width, height;
    bool fullRange;
    AVColorSpace space;
  } cases[] = {
      {"I420", Planar, Planar, 320, 180, false, AVCOL_SPC_UNSPECIFIED},
      {"NV12", BiPlanarVideoRange, BiPlanarVideoRange, 320, 180, false, AVCOL_SPC_UNSPECIFIED},
      {"full-range NV12", BiPlanarFullRange, BiPlanarFullRange, 320, 180, true, AVCOL_SPC_UNSPECIFIED},
      {"BGRA", BGRA, BGRA, 320, 180, false, AVCOL_SPC_SMPTE170M},
      {"BGRA scaled down", BGRA, BGRA, 700, 500, false, AVCOL_SPC_SMPTE170M},
      {"BGRA scaled up", BGRA, BGRA, 161, 91, false, AVCOL_SPC_SMPTE170M},
      {"I420 scaled", Planar, Planar, 640, 360, false, AVCOL_SPC_UNSPECIFIED},
      {"NV12 scaled", BiPlanarVideoRange, BiPlanarVideoRange, 200, 200, false, AVCOL_SPC_UNSPECIFIED},
      {"full range in a video-range stream", BiPlanarVideoRange, BiPlanarFullRange, 320, 180, false,
       AVCOL_SPC_UNSPECIFIED},
      {"video range in a full-range stream", BiPlanarFullRange, BiPlanarVideoRange, 320, 180, true,
       AVCOL_SPC_UNSPECIFIED},
      {"scaled full range in an I420 stream", Planar, BiPlanarFullRange, 640, 360, false, AVCOL_SPC_UNSPECIFIED},
      {"BGRA in a full-range stream", BiPlanarFullRange, BGRA, 320, 180, true, AVCOL_SPC_UNSPECIFIED},
      {"I420 in an NV12 stream", BiPlanarVideoRange, Planar, 320, 180, false, AVCOL_SPC_UNSPECIFIED},
      {"NV12 in a BGRA stream", BGRA, BiPlanarVideoRange, 320, 180, false, AVCOL_SPC_SMPTE170M},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.name);
    Recorder recorder(settingsFor(320, 180, 8'000'000));
    ASSERT_EQ(recorder.status, 0);
    H264Decoder decoder;
    for (const PixelFormat format : {test.first, test.second}) {
      ASSERT_EQ(recorder.encode(colourScene(format, test.width, test.height)), 0);
      const auto frame = decoder.decode(recorder.samples.back());
      ASSERT_NE(frame, nullptr);
      ASSERT_EQ(frame->width, 320);
      ASSERT_EQ(frame->height, 180);
      EXPECT_EQ(frame->color_range == AVCOL_RANGE_JPEG, test.fullRange);
      EXPECT_EQ(frame->colorspace, test.space);
      for (const double difference : test::differenceFromScene(*frame, test.fullRange, 320, 180)) {
        EXPECT_LT(difference, 1.5);
      }
    }
  }
}

TEST(FfmpegVideoCompression, TellsTheMatrixOfTheFirstPicture) {
  const struct {
    ColorMatrix matrix;
    AVColorSpace space;
  } cases[] = {{ColorMatrix::BT709, AVCOL_SPC_BT709}, {ColorMatrix::BT601, AVCOL_SPC_SMPTE170M}};
  for (const auto& test : cases) {
    Recorder recorder(settingsFor(320, 180, 1'000'000));
    const auto picture = colourScene(PixelFormat::BiPlanarVideoRange, 320, 180);
    picture->setColorMatrix(test.matrix);
    ASSERT_EQ(recorder.encode(picture), 0);
    EXPECT_EQ(H264Decoder().decode(recorder.samples.front())->colorspace, test.space);
  }
}

TEST(FfmpegVideoCompression, OddSizesLoseTheirLastColumnAndRow) {
  for (const auto format : {PixelFormat::Planar, PixelFormat::BGRA, PixelFormat::BiPlanarVideoRange}) {
    Recorder recorder(settingsFor(161, 121, 3'000'000));
    ASSERT_EQ(recorder.status, 0);
    ASSERT_EQ(recorder.encode(colourScene(format, 161, 121)), 0);
    const auto frame = H264Decoder().decode(recorder.samples.front());
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->width, 160);
    EXPECT_EQ(frame->height, 120);
    // Compared against the scene at its full size: a scaled picture would be off towards the edges.
    EXPECT_LT(test::differenceFromScene(*frame, false, 161, 121)[0], 1.0);
  }
}

TEST(FfmpegVideoCompression, RefusesWhatCannotBeEncoded) {
  const struct {
    std::int32_t width, height;
    std::string encoder, preset;
    std::string message;
  } cases[] = {
      {0, 0, "", "", "cannot encode pictures of 0 x 0"},
      {-320, 180, "", "", "cannot encode pictures of -320 x 180"},
      {1, 180, "", "", "cannot encode pictures of 1 x 180"},
      {16386, 16, "", "", "cannot encode pictures of 16386 x 16"},
      {16384, 16384, "libx264", "", "libx264 refuses 16384 x 16384"},
      {320, 180, "h264_abacus", "", "there is no video encoder \"h264_abacus\""},
      {320, 180, "x264", "hasty", "preset \"hasty\""},
  };
  for (const auto& test : cases) {
    const test::LogCapture log;
    auto settings = settingsFor(test.width, test.height, 500'000);
    settings.options = {test.encoder, test.preset};
    const Recorder recorder(settings);
    EXPECT_EQ(recorder.session, nullptr) << test.message;
    EXPECT_NE(recorder.status, 0) << test.message;
    EXPECT_EQ(log.count(LogLevel::Error, test.message), 1U) << test.message;
  }
}

TEST(FfmpegVideoCompression, AbsurdSettingsEncodeAllTheSame) {
  constexpr auto most = std::numeric_limits<std::int64_t>::max();
  const struct {
    std::string name;
    std::uint64_t frameRate;
    std::int64_t bitRate;
    double limit;
  } cases[] = {
      {"nothing known", 0, 0, 0},
      {"negative rate", 30, -5, -5},
      {"one bit a second", 30, 1, 0.1},
      {"everything endless", std::numeric_limits<std::uint64_t>::max(), most, 1e300},
      {"limit below the average", 30, 2'000'000, 1000},
  };
  for (const auto& test : cases) {
    auto settings = settingsFor(64, 48, test.bitRate);
    settings.expectedFrameRate = test.frameRate;
    settings.dataRateLimitBytes = test.limit;
    Recorder recorder(settings);
    ASSERT_EQ(recorder.status, 0) << test.name;
    for (int index = 0; index < 4; ++index) {
      EXPECT_EQ(recorder.encode(restlessScene(64, 48, index)), 0) << test.name;
      recorder.session->setBitRate(test.bitRate, test.limit, test.bitRate);
    }
    recorder.session->completeFrames();
    EXPECT_EQ(recorder.samples.size(), 4U) << test.name;
  }
}

TEST(FfmpegVideoCompression, ABadPictureCostsNothingButItself) {
  Recorder recorder(settingsFor(320, 180, 500'000));
  std::uint8_t byte = 0;
  const auto empty = PixelBuffer::wrap(PixelFormat::BGRA, 0, 0, {&byte, nullptr, nullptr}, {0, 0, 0});
  ASSERT_EQ(recorder.encode(restlessScene(320, 180, 0)), 0);
  EXPECT_NE(recorder.encode(nullptr), 0);
  EXPECT_NE(recorder.encode(empty), 0);
  EXPECT_EQ(recorder.encode(colourScene(PixelFormat::BGRA, 1, 1)), 0);
  ASSERT_EQ(recorder.encode(restlessScene(320, 180, 1)), 0);
  EXPECT_EQ(recorder.references, (std::vector<std::uint64_t>{33, 132, 165}));
}

TEST(FfmpegVideoCompression, TakesTheBestEncoderThatWorksUnlessOneIsNamed) {
  const auto service = makeFfmpegVideoCompression();
  const auto working = service->available();
  ASSERT_FALSE(working.empty());
  EXPECT_EQ(working.back().name, "libx264");
  EXPECT_FALSE(working.back().hardware);
  auto settings = settingsFor(320, 240, 500'000);
  for (const std::string& name : {std::string(), std::string("x264"), std::string("libx264")}) {
    int status = 1;
    settings.options.encoder = name;
    const auto session = service->create(
        settings, [](std::uint64_t, int, const VideoSample*) {}, status);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(session->encoderName(), name.empty() ? working.front().name : "libx264");
  }
  for (const std::string name : {"h264_nvenc", "h264_vaapi"}) {
    if (std::ranges::any_of(working, [&](const auto& encoder) { return encoder.name == name; })) {
      continue;
    }
    const test::LogCapture log;
    int status = 0;
    settings.options.encoder = name;
    EXPECT_EQ(service->create(settings, {}, status), nullptr);
    EXPECT_NE(status, 0);
    EXPECT_EQ(log.count(LogLevel::Error, "video encoder " + name + " does not work on this machine"), 1U);
  }
}

}  // namespace
}  // namespace zellive
