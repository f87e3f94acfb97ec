#include "zellive/platform/linux/CameraFormats.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tests/support/Process.h"
#include "zellive/platform/linux/MjpegDecoder.h"
#include "zellive/platform/linux/RawPicture.h"

namespace zellive {
namespace {

TEST(CameraFormats, PresetsNameSizes) {
  const auto size = [](const char* preset) { return sizeOfPreset(preset).value_or(PictureSize{}); };
  EXPECT_EQ(size("AVCaptureSessionPreset1280x720"), (PictureSize{1280, 720}));
  EXPECT_EQ(size("AVCaptureSessionPresetHigh"), (PictureSize{1920, 1080}));
  for (const char* unknown : {"", "1280x720", "AVCaptureSessionPreset1280", "AVCaptureSessionPreset0x0",
                              "AVCaptureSessionPreset1280x720p", "AVCaptureSessionPreset-1x2"}) {
    EXPECT_FALSE(sizeOfPreset(unknown)) << unknown;
  }
}

TEST(CameraFormats, TheNearestSizeThenASufficientRateThenTheLeastWork) {
  // A usual webcam: its raw pictures are slow where they are large.
  const std::vector<CaptureDeviceFormat> webcam{{"H264", 1280, 720, 30, 30},    {"YUY2", 640, 480, 5, 30},
                                                {"MJPEG", 640, 480, 5, 30},     {"YUY2", 1280, 720, 5, 10},
                                                {"MJPEG", 1280, 720, 5, 29.97}, {"MJPEG", 1920, 1080, 5, 30}};
  struct Case {
    PictureSize size;
    double rate;
    const char* encoding;
    std::size_t width;
  };
  for (const auto& [size, rate, encoding, width] : {
           Case{{1280, 720}, 0, "MJPEG", 1280},
           Case{{1280, 720}, 30, "MJPEG", 1280},
           Case{{1280, 720}, 10, "YUY2", 1280},
           Case{{640, 480}, 30, "YUY2", 640},
           Case{{3840, 2160}, 30, "MJPEG", 1920},
           Case{{320, 240}, 15, "YUY2", 640},
       }) {
    CameraRequest request{PixelFormat::BiPlanarVideoRange, size, {}};
    if (rate > 0) {
      request.frameDuration = frameDurationOf(MediaTime::make(1, static_cast<std::int32_t>(rate)));
    }
    const auto best = bySuitability(webcam, request);
    ASSERT_EQ(best.size(), webcam.size() - 1);  // Without the one that cannot be read.
    EXPECT_EQ(best.front().encoding, encoding) << size.width << " at " << rate;
    EXPECT_EQ(best.front().width, width) << size.width << " at " << rate;
  }
}

TEST(CameraFormats, OneOfThoseThatSayNothingServesAsTheFrontCamera) {
  constexpr auto none = CaptureDevicePositionUnspecified;
  constexpr auto back = CaptureDevicePositionBack;
  constexpr auto front = CaptureDevicePositionFront;
  const std::vector<std::pair<std::vector<CaptureDevicePosition>, std::vector<CaptureDevicePosition>>> cases{
      {{}, {}},
      {{none}, {front}},
      {{none, none, none}, {front, back, none}},
      {{none, front}, {back, front}},
      {{back, none}, {back, front}},
      {{back}, {back}},
  };
  for (const auto& [stated, expected] : cases) {
    std::vector<CameraPlace> places{{none, false}};  // A virtual one is not put anywhere on its own.
    for (const auto position : stated) {
      places.push_back({position, true});
    }
    assignPlaces(places);
    EXPECT_EQ(places[0].position, none);
    for (std::size_t i = 0; i < expected.size(); ++i) {
      EXPECT_EQ(places[i + 1].position, expected[i]) << i;
    }
  }
}

TEST(CameraFormats, FramesAreThinnedToTheRateInSpiteOfJitter) {
  const auto kept = [](int cameraRate, int wantedRate) {
    FrameThinner thinner(frameDurationOf(MediaTime::make(1, wantedRate)));
    int count = 0;
    for (int i = 0; i < cameraRate * 4; ++i) {
      const std::chrono::nanoseconds time(std::chrono::milliseconds(i * 1000 / cameraRate + (i % 3) * 2));
      count += thinner.admits(time) ? 1 : 0;
    }
    return count / 4;
  };
  EXPECT_EQ(kept(30, 30), 30);
  EXPECT_EQ(kept(30, 15), 15);
  EXPECT_NEAR(kept(30, 20), 20, 1);
  EXPECT_EQ(kept(15, 30), 15);
}

// ---- Pictures

struct Sample {
  int y;
  int cb;
  int cr;
};

/// A picture whose left half is of one colour and whose right half of another, as a camera sends it: in one block.
std::vector<std::uint8_t> cameraPicture(RawLayout layout, std::size_t width, std::size_t height, std::size_t padded,
                                        const Sample& left, const Sample& right) {
  std::vector<std::uint8_t> block;
  const auto row = [&](std::size_t bytes, auto&& at) {
    const std::size_t begin = block.size();
    block.resize(begin + bytes, 0xEE);
    for (std::size_t x = 0; x < width; ++x) {
      at(block.data() + begin, x, x < width / 2 ? left : right);
    }
  };
  const auto byte = [](int value) { return static_cast<std::uint8_t>(value); };
  for (std::size_t y = 0; y < height; ++y) {
    if (layout == RawLayout::YUY2 || layout == RawLayout::UYVY) {
      const std::size_t luma = layout == RawLayout::YUY2 ? 0 : 1;
      row(padded * 2, [&](std::uint8_t* bytes, std::size_t x, const Sample& sample) {
        bytes[2 * x + luma] = byte(sample.y);
        bytes[2 * x + 1 - luma] = byte(x % 2 == 0 ? sample.cb : sample.cr);
      });
    } else {
      row(padded, [&](std::uint8_t* bytes, std::size_t x, const Sample& sample) { bytes[x] = byte(sample.y); });
    }
  }
  const bool planar = layout == RawLayout::I420 || layout == RawLayout::YV12;
  const bool crFirst = layout == RawLayout::NV21 || layout == RawLayout::YV12;
  if (layout == RawLayout::NV12 || layout == RawLayout::NV21) {
    for (std::size_t y = 0; y < height / 2; ++y) {
      row(padded, [&](std::uint8_t* bytes, std::size_t x, const Sample& sample) {
        bytes[x] = byte((x % 2 == 0) != crFirst ? sample.cb : sample.cr);
      });
    }
  }
  for (int plane = 0; planar && plane < 2; ++plane) {
    for (std::size_t y = 0; y < height / 2; ++y) {
      row(padded / 2, [&](std::uint8_t* bytes, std::size_t x, const Sample& sample) {
        bytes[x / 2] = byte((plane == 0) != crFirst ? sample.cb : sample.cr);
      });
    }
  }
  return block;
}

void expectColour(const PixelBuffer& picture, std::size_t x, const Sample& expected, int tolerance) {
  const auto& luma = picture.plane(0);
  const auto& chroma = picture.plane(1);
  EXPECT_NEAR(luma.base[(picture.height() - 1) * luma.bytesPerRow + x], expected.y, tolerance) << "Y at " << x;
  const std::uint8_t* pair = chroma.base + (chroma.height - 1) * chroma.bytesPerRow + x / 2 * 2;
  EXPECT_NEAR(pair[0], expected.cb, tolerance) << "Cb at " << x;
  EXPECT_NEAR(pair[1], expected.cr, tolerance) << "Cr at " << x;
}

TEST(RawPicture, EveryLayoutBecomesTheSamePicture) {
  struct Case {
    RawLayout layout;
    std::size_t padded;  // A row, in pixels.
    bool saysStride;
  };
  const Sample left{100, 90, 200};
  const Sample right{200, 150, 60};
  for (const auto& [layout, padded, saysStride] :
       {Case{RawLayout::NV12, 20, false}, Case{RawLayout::NV12, 24, false}, Case{RawLayout::NV12, 36, true},
        Case{RawLayout::NV21, 20, true}, Case{RawLayout::I420, 24, false}, Case{RawLayout::YV12, 20, false},
        Case{RawLayout::YUY2, 24, true}, Case{RawLayout::UYVY, 24, false}}) {
    SCOPED_TRACE(testing::Message() << "layout " << static_cast<int>(layout) << ", rows of " << padded);
    const auto block = cameraPicture(layout, 20, 8, padded, left, right);
    const std::size_t stride = layout == RawLayout::YUY2 || layout == RawLayout::UYVY ? padded * 2 : padded;
    RawPicture picture{layout, 20, 8, {}, false};
    ASSERT_TRUE(findPlanes(picture, block, saysStride ? stride : 0));
    const auto video = PixelBuffer::create(PixelFormat::BiPlanarVideoRange, 20, 8);
    toBiPlanar(picture, *video);
    expectColour(*video, 0, left, 0);
    expectColour(*video, 19, right, 0);
    const auto full = PixelBuffer::create(PixelFormat::BiPlanarFullRange, 20, 8);
    toBiPlanar(picture, *full);
    expectColour(*full, 0, {98, 85, 210}, 1);
    expectColour(*full, 19, {214, 153, 51}, 1);
    // A picture that was cut short is refused, and not read beyond its end.
    EXPECT_FALSE(findPlanes(picture, std::span(block).first(block.size() - padded), stride));
  }
}

TEST(RawPicture, RgbOfEveryOrderBecomesTheSameColours) {
  constexpr std::array<std::uint8_t, 3> red{200, 20, 40};
  for (const auto& [encoding, order] : std::vector<std::pair<const char*, std::string>>{
           {"RGB", "rgb"}, {"BGR", "bgr"}, {"RGBA", "rgbx"}, {"BGRx", "bgrx"}, {"ARGB", "xrgb"}, {"xBGR", "xbgr"}}) {
    SCOPED_TRACE(encoding);
    std::vector<std::uint8_t> block;
    for (std::size_t i = 0; i < std::size_t{16} * 4; ++i) {
      for (const char component : order) {
        block.push_back(component == 'r' ? red[0] : component == 'g' ? red[1] : component == 'b' ? red[2] : 7);
      }
    }
    RawPicture picture{*layoutOf(encoding), 16, 4, {}, false};
    ASSERT_TRUE(findPlanes(picture, block, 0));
    const auto converted = PixelBuffer::create(PixelFormat::BiPlanarVideoRange, 16, 4);
    toBiPlanar(picture, *converted);
    expectColour(*converted, 5, {81, 110, 205}, 2);  // By the matrix of BT.601.
  }
}

TEST(MjpegDecoder, DecodesEverySamplingAndRefusesRubbish) {
  const test::TemporaryDirectory directory;
  MjpegDecoder decoder;
  for (const char* sampling : {"yuvj420p", "yuvj422p", "yuvj444p"}) {
    SCOPED_TRACE(sampling);
    const std::string path = directory.path() + "/" + sampling + ".jpg";
    const auto made = test::runProgram({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=0xC81428:s=66x34",
                                        "-frames:v", "1", "-pix_fmt", sampling, "-q:v", "2", path});
    ASSERT_EQ(made.status, 0) << made.errors;
    const std::string file = test::contentsOf(path);
    const std::span data(reinterpret_cast<const std::uint8_t*>(file.data()), file.size());
    EXPECT_FALSE(decoder.decode(std::vector<std::uint8_t>(500, 0x55)));
    (void)decoder.decode(data.first(data.size() / 2));  // Must do no harm.
    const auto picture = decoder.decode(data);
    ASSERT_TRUE(picture);
    EXPECT_EQ(picture->width, 66U);
    EXPECT_EQ(picture->height, 34U);
    const auto full = PixelBuffer::create(PixelFormat::BiPlanarFullRange, 66, 34);
    toBiPlanar(*picture, *full);
    expectColour(*full, 60, {76, 108, 216}, 3);
  }
}

}  // namespace
}  // namespace zellive
