#include "zellive/platform/linux/FfmpegVideoCompression.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <thread>

#include "tests/codec/TestMedia.h"
#include "tests/support/ManualPlatform.h"

namespace zellive {
namespace {

using test::colourScene;
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
    int failure = 1;
    const auto note = [this](std::uint64_t reference, int status, const VideoSample* sample) {
      ASSERT_TRUE(status == 0 && sample != nullptr);
      if (sample->sync) {
        syncs.push_back(static_cast<int>(samples.size()));
      }
      references.push_back(reference);
      samples.push_back(*sample);
      bits.push_back(8 * static_cast<double>(sample->data.length()));
    };
    session = makeFfmpegVideoCompression()->create(settings, note, failure);
    EXPECT_EQ(failure, 0);
  }
  /// Picture n, counted from 1, has reference 33 n.
  int encode(const std::shared_ptr<PixelBuffer>& picture, VideoFrameProperties properties = {}) {
    ++pictures;
    return session->encodeFrame(picture, pictures, properties, static_cast<std::uint64_t>(pictures) * 33);
  }

  std::int64_t pictures = 0;
  std::vector<std::uint64_t> references;
  std::vector<VideoSample> samples;
  std::vector<int> syncs;
  std::vector<double> bits;
  std::unique_ptr<VideoCompressionSession> session;
};

/// With one thread no picture is held back; with several, some are until the session is told to complete them.
TEST(FfmpegVideoCompression, MakesOneSliceAPictureWithKeyFramesAndSeiWhereAsked) {
  for (const bool threads : {false, true}) {
    if (threads && std::thread::hardware_concurrency() < 2) {
      GTEST_SKIP() << "one core: the encoder never uses two threads";
    }
    auto settings = settingsFor(320, 180, 1'000'000);
    settings.expectedFrameRate = threads ? 1000 : 30;
    Recorder recorder(settings);
    for (int index = 0; index < 50; ++index) {
      const bool key = index == 20 || index == 45;
      // At 21 the SEI is asked for a picture that does not become a key frame.
      const bool sei = index == 20 || index == 21;
      ASSERT_EQ(recorder.encode(restlessScene(320, 180, index), {.forceKeyFrame = key, .leadingSei = sei}), 0);
    }
    EXPECT_EQ(recorder.samples.size() < 50, threads);
    recorder.session->completeFrames();
    ASSERT_EQ(recorder.encode(restlessScene(320, 180, 50)), 0);
    recorder.session->completeFrames();
    // A stream that had to be completed goes on with a key frame.
    EXPECT_EQ(recorder.syncs, threads ? (std::vector{0, 20, 45, 50}) : (std::vector{0, 20, 45}));
    recorder.session.reset();  // What it gave stays.
    ASSERT_EQ(recorder.samples.size(), 51U);
    auto decoder = test::Decoder::h264(recorder.samples[0]);
    for (std::size_t index = 0; index < 51; ++index) {
      const VideoSample& sample = recorder.samples[index];
      EXPECT_EQ(recorder.references[index], 33 * (index + 1));
      const auto units = test::nalUnits(sample.data.span());
      ASSERT_EQ(units.size(), index == 20 ? 2U : 1U);
      EXPECT_EQ(units.back()[0] & 0x1F, sample.sync ? 5 : 1);
      EXPECT_TRUE(index != 20 || (units[0][0] == 6 && std::ranges::search(units[0], std::string_view("ZelLive"))));
      const auto frame = decoder.decode(sample.data);
      ASSERT_NE(frame, nullptr) << "picture " << index << " does not decode at once";
      EXPECT_EQ(frame->pict_type, sample.sync ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_P);
    }
    EXPECT_EQ(recorder.samples[0].pps.bytes()[1] & 0xE0, 0xE0) << "ids 0 and 0, then CABAC";
  }
}

TEST(FfmpegVideoCompression, FollowsTheBitRateAndKeepsItsLimit) {
  Recorder recorder(settingsFor(320, 180, 1'500'000));
  const auto still = colourScene(PixelFormat::Planar, 320, 180);
  const struct {
    std::int64_t bitRate;
    int stillUntil;  ///< Then a cut to the restless scene.
  } stages[] = {{1'500'000, 0}, {400'000, 0}, {2'200'000, 0}, {600'000, 45}};
  int index = 0;
  for (const auto& [bitRate, stillUntil] : stages) {
    const auto rate = static_cast<double>(bitRate);
    recorder.session->setBitRate(bitRate, rate * 1.5 / 8, 1);
    for (int picture = 0; picture < 90; ++picture, ++index) {
      const auto scene = picture < stillUntil ? still : restlessScene(320, 180, index);
      ASSERT_EQ(recorder.encode(scene, {.forceKeyFrame = index % 60 == 0}), 0);
    }
    // The first second is the change's.
    const auto begin = recorder.bits.end() - 60;
    EXPECT_TRUE(stillUntil > 0 || std::abs(std::accumulate(begin, recorder.bits.end(), 0.0) / 2 - rate) < 0.15 * rate);
    for (auto window = begin; window <= recorder.bits.end() - 30; ++window) {
      EXPECT_LE(std::accumulate(window, window + 30, 0.0), 1.5 * rate) << "the second from " << window - begin;
    }
  }
  EXPECT_EQ(recorder.syncs, (std::vector{0, 60, 120, 180, 240, 300})) << "neither rate nor cut adds one";
}

TEST(FfmpegVideoCompression, EveryFormatGivesTheRightPicture) {
  using enum PixelFormat;
  using enum ColorMatrix;
  const struct {
    PixelFormat first;  ///< Settles the stream's range and matrix.
    PixelFormat second;
    int width, height;  ///< Of the pictures.
    ColorMatrix matrix = Unspecified;
    AVColorSpace space = AVCOL_SPC_UNSPECIFIED;
    ColorMatrix secondMatrix = matrix;
    int codedWidth = 320, codedHeight = 180;
  } cases[] = {
      {Planar, BiPlanarFullRange, 320, 180},
      {Planar, Planar, 640, 360},
      {BiPlanarVideoRange, Planar, 320, 180, BT709, AVCOL_SPC_BT709},
      {BiPlanarVideoRange, BiPlanarFullRange, 200, 200, BT601, AVCOL_SPC_SMPTE170M},
      {BiPlanarFullRange, BiPlanarVideoRange, 320, 180},
      {BiPlanarFullRange, BGRA, 320, 180},
      {BGRA, BiPlanarVideoRange, 161, 91, Unspecified, AVCOL_SPC_SMPTE170M},
      {Planar, BGRA, 320, 180, BT709, AVCOL_SPC_BT709, BT601},
      {BGRA, Planar, 320, 180, Unspecified, AVCOL_SPC_SMPTE170M, BT709},
      {BiPlanarFullRange, BiPlanarVideoRange, 320, 180, BT709, AVCOL_SPC_BT709, BT601},
      // Odd sizes lose their last column and row: a scaled picture would be off towards the edges.
      {BGRA, Planar, 17, 19, Unspecified, AVCOL_SPC_SMPTE170M, Unspecified, 17, 19},
      {BiPlanarVideoRange, BiPlanarVideoRange, 17, 19, BT709, AVCOL_SPC_BT709, BT709, 17, 19},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(&test - cases);
    Recorder recorder(settingsFor(test.codedWidth, test.codedHeight, 8'000'000));
    for (const auto& [format, matrix] : {std::pair{test.first, test.matrix}, {test.second, test.secondMatrix}}) {
      ASSERT_EQ(recorder.encode(colourScene(format, test.width, test.height, matrix), {.forceKeyFrame = true}), 0);
      const VideoSample& sample = recorder.samples.back();
      const auto frame = test::Decoder::h264(sample).decode(sample.data);
      ASSERT_TRUE(frame && frame->width == (test.codedWidth & ~1) && frame->height == (test.codedHeight & ~1));
      EXPECT_EQ(frame->color_range == AVCOL_RANGE_JPEG, test.first == BiPlanarFullRange);
      EXPECT_EQ(frame->colorspace, test.space);
      EXPECT_LT(test::differenceFromScene(*frame, test.codedWidth, test.codedHeight), 1.5);
    }
  }
}

TEST(FfmpegVideoCompression, TakesTheBestEncoderThatWorksUnlessOneIsNamedAndSaysWhyNot) {
  const auto service = makeFfmpegVideoCompression();
  const auto working = service->available();
  ASSERT_FALSE(working.empty());
  std::vector<std::tuple<std::int32_t, std::int32_t, VideoEncoderOptions, std::string, std::string>> cases{
      {320, 240, {"", ""}, "", working.front().name},
      {320, 240, {"x264", "ultrafast"}, "", "libx264"},
      {320, 240, {"x264", "hasty"}, "preset \"hasty\"", ""},
      {320, 240, {"h264_abacus", ""}, "there is no video encoder \"h264_abacus\"", ""},
      {-320, 180, {"", ""}, "cannot encode pictures of -320 x 180", ""},
      {16384, 16384, {"libx264", ""}, "libx264 refuses 16384 x 16384", ""},
  };
  for (const std::string name : {"h264_nvenc", "h264_vaapi"}) {
    if (std::ranges::find(working, name, &VideoEncoderDescription::name) == working.end()) {
      cases.push_back({320, 240, {name, ""}, "video encoder " + name + " does not work on this machine", ""});
    }
  }
  for (const auto& [width, height, options, message, taken] : cases) {
    const test::LogCapture log;
    auto settings = settingsFor(width, height, 500'000);
    settings.options = options;
    int status = 1;
    const auto session = service->create(settings, {}, status);
    EXPECT_EQ(session ? session->encoderName() : "", taken) << message;
    EXPECT_EQ(status == 0, session != nullptr) << message;
    EXPECT_EQ(log.count(LogLevel::Error, message), session ? 0U : 1U) << message;
  }
}

TEST(FfmpegVideoCompression, AbsurdSettingsAndBadPicturesDoNoHarm) {
  const std::tuple<std::uint64_t, std::int64_t, double> cases[] = {
      {0, 0, 0}, {30, -5, -5}, {30, 1, 0.1}, {~0ULL, std::int64_t{~0ULL >> 1}, 1e300}, {30, 2'000'000, 1000}};
  std::uint8_t byte = 0;
  const auto empty = PixelBuffer::wrap(PixelFormat::BGRA, 0, 0, {&byte, nullptr, nullptr}, {0, 0, 0});
  for (const auto& [frameRate, bitRate, limit] : cases) {
    auto settings = settingsFor(64, 48, bitRate);
    settings.expectedFrameRate = frameRate;
    settings.dataRateLimitBytes = limit;
    Recorder recorder(settings);
    EXPECT_EQ(recorder.encode(restlessScene(64, 48, 0)), 0) << bitRate;
    recorder.session->setBitRate(bitRate, limit, bitRate);
    EXPECT_NE(recorder.encode(nullptr), 0);
    EXPECT_NE(recorder.encode(empty), 0);
    EXPECT_EQ(recorder.encode(colourScene(PixelFormat::BGRA, 1, 1)), 0) << bitRate;
    recorder.session->completeFrames();
    EXPECT_EQ(recorder.references, (std::vector<std::uint64_t>{33, 132})) << bitRate;
  }
}

}  // namespace
}  // namespace zellive
