#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/gpu/Golden.h"
#include "tests/gpu/GpuTest.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/gpu/GPUImageCropFilter.h"
#include "zellive/gpu/GPUImageTwoInputFilter.h"

namespace zellive::test {
namespace {

const std::string kUniformColor =
    "uniform lowp vec3 color; uniform lowp float alpha; void main() { gl_FragColor = vec4(color, alpha); }";

class Graph : public testing::Test {
 protected:
  static std::array<int, 4> pixel(GPUImageFramebuffer& framebuffer, std::size_t x = 0, std::size_t y = 0) {
    const auto* const at = framebuffer.byteBuffer() + y * framebuffer.bytesPerRow() + x * 4;
    return {at[0], at[1], at[2], at[3]};
  }
  const std::shared_ptr<PictureSource> source_ = std::make_shared<PictureSource>();
  const std::shared_ptr<PixelBuffer> picture_ = samplePicture(PixelFormat::BGRA, 32, 18);
};

TEST_F(Graph, TargetsAreAddedOnceAndToldWhenTheyLeave) {
  const auto filter = GPUImageFilter::create();
  const auto a = std::make_shared<Recorder>();
  const auto b = std::make_shared<Recorder>();
  source_->addTarget(filter);
  filter->addTarget(a);
  filter->addTarget(a);
  filter->addTarget(b);
  EXPECT_EQ(filter->targets(), (std::vector<std::shared_ptr<GPUImageInput>>{a, b}));
  source_->turn = kGPUImageTurnLeft;
  source_->send(*picture_, MediaTime::make(7, 30));
  EXPECT_EQ(a->size, (Size{18, 32}));
  EXPECT_EQ(b->times, std::vector<std::int64_t>{7});
  EXPECT_EQ(b->last->size(), (Size{18, 32}));

  filter->removeTarget(source_ ? std::make_shared<Recorder>() : nullptr);
  filter->removeTarget(a);
  EXPECT_EQ(a->ends, 1);
  EXPECT_EQ(a->size, Size{});
  source_->send(*picture_);
  EXPECT_EQ(a->times.size(), 1U);
  filter->removeAllTargets();
  EXPECT_EQ(b->ends, 0);
  EXPECT_EQ(b->size, Size{});
  EXPECT_TRUE(filter->targets().empty());
}

TEST_F(Graph, SparedTargetGetsNoFrames) {
  const auto filter = GPUImageFilter::create();
  const auto spared = std::make_shared<Recorder>(true);
  const auto other = std::make_shared<Recorder>();
  source_->addTarget(filter);
  filter->addTarget(spared);
  filter->addTarget(other);
  EXPECT_EQ(filter->targetToIgnoreForUpdates(), spared);
  const int given = spared->framebuffers;
  EXPECT_EQ(given, 1) << "the present framebuffer, though there is none yet";
  source_->send(*picture_);
  EXPECT_EQ(spared->framebuffers, given);
  EXPECT_TRUE(spared->times.empty());
  EXPECT_EQ(other->times.size(), 1U);
  filter->removeTarget(spared);
  EXPECT_FALSE(filter->targetToIgnoreForUpdates());
}

TEST_F(Graph, FramesGoRoundTheCacheWithBalancedLocks) {
  const auto filter = GPUImageFilter::createWithFragmentShader(kUniformColor);
  const auto a = std::make_shared<Recorder>();
  const auto b = std::make_shared<Recorder>();
  source_->addTarget(filter);
  filter->addTarget(a);
  filter->addTarget(b);
  GPUImageFramebuffer* inBlock = nullptr;
  filter->setFrameProcessingCompletionBlock([&](GPUImageOutput& output, MediaTime time) {
    inBlock = output.framebufferForOutput().get();
    EXPECT_EQ(inBlock->framebufferReferenceCount(), 1U);
    EXPECT_EQ(a->times.size(), static_cast<std::size_t>(time.value)) << "before the targets";
  });
  for (int frame = 0; frame < 3; ++frame) {
    source_->send(*picture_, MediaTime::make(frame, 30));
    EXPECT_EQ(a->last.get(), inBlock);
    EXPECT_EQ(a->last->framebufferReferenceCount(), 0U);
    EXPECT_FALSE(filter->framebufferForOutput());
  }
}

TEST_F(Graph, OnlyAnExactCopyOfAnInputOfOnesOwnIsNotDrawn) {
  const auto filter = GPUImageFilter::create();
  const auto rival = std::make_shared<Recorder>();
  const auto sink = std::make_shared<Recorder>();
  source_->addTarget(filter);
  filter->addTarget(sink);
  // The source draws once itself.
  const auto draws = [&] {
    const auto before = counted();
    source_->send(*picture_);
    EXPECT_EQ(sink->last->framebufferReferenceCount(), 0U);
    return (counted() - before).draws - 1;
  };
  EXPECT_EQ(draws(), 0U);
  filter->forceProcessingAtSize({16, 9});
  EXPECT_EQ(draws(), 1U);
  EXPECT_EQ(sink->size, (Size{16, 9}));
  filter->forceProcessingAtSize({});
  EXPECT_EQ(draws(), 0U);
  source_->turn = kGPUImageTurn180;
  EXPECT_EQ(draws(), 1U);
  source_->turn = kGPUImageTurnNone;
  filter->setOutputTextureOptions({.wrapS = 0x2901});
  EXPECT_EQ(draws(), 1U);
  filter->setOutputTextureOptions({});
  source_->addTarget(rival);
  EXPECT_EQ(draws(), 1U) << "another target may look at the input later";
  source_->removeTarget(rival);
  EXPECT_EQ(draws(), 0U);
  filter->setFloat(1, "anything");
  EXPECT_EQ(draws(), 1U);
}

TEST_F(Graph, SizesAreForcedAndFitted) {
  const auto filter = GPUImageFilter::create();
  const auto sink = std::make_shared<Recorder>();
  source_->addTarget(filter);
  filter->addTarget(sink);
  struct Case {
    GPUImageInputTurn turn;
    Size bounds, output;
  };
  for (const auto& [turn, bounds, output] :
       {Case{kGPUImageTurnNone, {640, 640}, {640, 360}}, Case{kGPUImageTurnLeft, {640, 640}, {360, 640}},
        Case{kGPUImageTurn180, {80, 9}, {16, 9}}, Case{static_cast<GPUImageInputTurn>(9), {}, {32, 18}}}) {
    source_->turn = turn;
    filter->forceProcessingAtSizeRespectingAspectRatio(bounds);
    source_->send(*picture_);
    EXPECT_EQ(sink->last->size(), output) << turn;
  }
  const auto crop = GPUImageCropFilter::create({0, 0.125, 1, 0.75});
  onQueue([&] { crop->setInputSize({720, 1280}, 0); });
  EXPECT_EQ(crop->outputFrameSize(), (Size{720, 960}));
}

TEST_F(Graph, FiltersOfOneProgramKeepTheirOwnUniforms) {
  const auto red = GPUImageFilter::createWithFragmentShader(kUniformColor);
  const auto blue = GPUImageFilter::createWithFragmentShader(kUniformColor);
  const auto plain = GPUImageFilter::createWithFragmentShader(kUniformColor);
  EXPECT_EQ(red->filterProgram(), blue->filterProgram());
  const auto seen = std::make_shared<Recorder>();
  std::vector<std::array<int, 4>> colors;
  for (const auto& filter : {red, blue, plain}) {
    source_->addTarget(filter);
    filter->setFrameProcessingCompletionBlock(
        [&](GPUImageOutput& output, MediaTime) { colors.push_back(pixel(*output.framebufferForOutput())); });
  }
  red->setFloatVec3({1, 0, 0}, "color");
  red->setFloat(0, "alpha");
  red->setFloat(1, "alpha");
  blue->setFloatVec3({0, 0, 1}, "color");
  blue->setFloat(0, "alpha");
  plain->setFloatVec3({0, 1, 0}, "color");
  for (int frame = 0; frame < 2; ++frame) {
    colors.clear();
    source_->send(*picture_);
    EXPECT_EQ(colors[0], (std::array<int, 4>{0, 0, 255, 255}));
    EXPECT_EQ(colors[1], (std::array<int, 4>{255, 0, 0, 0}));
    EXPECT_EQ(colors[2][1], 255);
  }
}

TEST_F(Graph, EndOfProcessingIsToldOnce) {
  const auto filter = GPUImageFilter::create();
  const auto next = GPUImageFilter::create();
  const auto sink = std::make_shared<Recorder>();
  filter->addTarget(next);
  next->addTarget(sink);
  filter->endProcessing();
  filter->endProcessing();
  next->endProcessing();
  EXPECT_EQ(sink->ends, 1);
}

TEST_F(Graph, StillCaptureKeepsOneFrameAndWaitsThreeSeconds) {
  const auto filter = GPUImageFilter::create();
  source_->addTarget(filter);
  filter->useNextFrameForImageCapture();
  EXPECT_FALSE(filter->newCGImageFromCurrentlyProcessedOutput());
  EXPECT_EQ(GpuPlatform::lastLimit.load(), std::chrono::seconds(3));

  source_->send(*picture_);
  auto image = filter->newCGImageFromCurrentlyProcessedOutput();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->width(), 32U);
  EXPECT_EQ(image->bytes()[5], picture_->plane(0).base[5]);
  const auto kept = filter->framebufferForOutput();
  EXPECT_EQ(kept->framebufferReferenceCount(), 1U);
  image.reset();
  EXPECT_EQ(kept->framebufferReferenceCount(), 0U);
  source_->send(*picture_);
  EXPECT_FALSE(filter->framebufferForOutput());
}

TEST_F(Graph, ImagesAreSavedAsTheyAre) {
  const auto path = std::filesystem::temp_directory_path() / ("zellive-image-" + std::to_string(getpid()) + ".png");
  const std::uint8_t bytes[] = {1, 2, 3, 4, 99, 99, 99, 99, 250, 251, 252, 253};
  EXPECT_TRUE(savePNG(Image(Image::Layout::BGRAPremultiplied, 1, 2, 8, bytes, {}), path));
  std::ifstream file(path, std::ios::binary);
  const std::string png(std::istreambuf_iterator<char>(file), {});
  std::filesystem::remove(path);
  EXPECT_EQ(png.substr(0, 4), "\x89PNG");
  EXPECT_EQ(png.substr(16, 10), std::string("\0\0\0\1\0\0\0\2\10\6", 10)) << "1 x 2, eight bits, with alpha";
  const LogCapture log;
  EXPECT_FALSE(savePNG(Image(Image::Layout::RGBA, 1, 2, 8, bytes, {}), "/nonexistent/image.png"));
  EXPECT_EQ(log.count("/nonexistent/image.png cannot be written"), 1U);
}

class TwoInputs : public Graph {
 protected:
  TwoInputs() {
    source_->addTarget(filter_);
    second_->addTarget(filter_);
    filter_->addTarget(sink_);
  }
  void first(MediaTime time) { source_->send(*picture_, time); }
  void second(MediaTime time) { second_->send(*picture_, time); }

  const std::shared_ptr<GPUImageTwoInputFilter> filter_ = GPUImageTwoInputFilter::createWithFragmentShader(
      "varying highp vec2 textureCoordinate; varying highp vec2 textureCoordinate2; uniform sampler2D "
      "inputImageTexture; "
      "uniform sampler2D inputImageTexture2; void main() { gl_FragColor = vec4(texture2D(inputImageTexture, "
      "textureCoordinate).rg, texture2D(inputImageTexture2, textureCoordinate2).ba); }");
  const std::shared_ptr<PictureSource> second_ = std::make_shared<PictureSource>();
  const std::shared_ptr<Recorder> sink_ = std::make_shared<Recorder>();
};

TEST_F(TwoInputs, MovingPicturesArePaired) {
  first(MediaTime::make(1, 30));
  first(MediaTime::make(2, 30));
  EXPECT_TRUE(sink_->times.empty());
  second(MediaTime::make(10, 30));
  second(MediaTime::make(11, 30));
  first(MediaTime::make(3, 30));
  EXPECT_EQ(sink_->times, (std::vector<std::int64_t>{2, 3})) << "the first input's time, once a pair";
}

TEST_F(TwoInputs, MovingPicturesDoNotWaitForAStillOne) {
  second(MediaTime::indefinite());
  for (int frame = 1; frame < 4; ++frame) {
    first(MediaTime::make(frame, 30));
  }
  EXPECT_EQ(sink_->times, (std::vector<std::int64_t>{1, 2, 3}));
}

TEST_F(TwoInputs, AnUncheckedInputDoesNotHoldTheOtherUp) {
  second(MediaTime::make(5, 30));
  filter_->disableSecondFrameCheck();
  first(MediaTime::make(1, 30));
  first(MediaTime::make(2, 30));
  EXPECT_EQ(sink_->times, (std::vector<std::int64_t>{1, 2}));
  second(MediaTime::make(6, 30));
  EXPECT_EQ(sink_->times.size(), 2U) << "the first input is waited for";
}

TEST_F(TwoInputs, EachInputTurnsByItself) {
  second_->turn = kGPUImageTurnFlipVertical;
  std::array<int, 4> corner{};
  filter_->setFrameProcessingCompletionBlock(
      [&](GPUImageOutput& output, MediaTime) { corner = pixel(*output.framebufferForOutput()); });
  second(MediaTime::make(1, 30));
  first(MediaTime::make(1, 30));
  const auto& plane = picture_->plane(0);
  const auto* const below = plane.base + 17 * plane.bytesPerRow;
  EXPECT_EQ(corner, (std::array<int, 4>{below[0], plane.base[1], plane.base[2], below[3]}));
}

TEST_F(TwoInputs, SlotsStartAgainWhenTheFirstSourceLeaves) {
  EXPECT_EQ(filter_->nextAvailableTextureIndex(), 1U);
  second_->removeTarget(filter_);
  EXPECT_EQ(filter_->nextAvailableTextureIndex(), 1U);
  source_->removeTarget(filter_);
  EXPECT_EQ(filter_->nextAvailableTextureIndex(), 0U);
}

}  // namespace
}  // namespace zellive::test
