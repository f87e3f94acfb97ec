#include <gtest/gtest.h>

#include "tests/gpu/GpuTest.h"
#include "zellive/gpu/GPUImageCropFilter.h"
#include "zellive/gpu/GPUImageTwoInputFilter.h"

namespace zellive::test {
namespace {

const std::string kUniformColor =
    "uniform lowp vec3 color; uniform lowp float alpha; void main() { gl_FragColor = vec4(color, alpha); }";

using Pixel = std::array<int, 4>;

Pixel firstPixel(const GPUImageOutput& output) {
  const auto* const at = output.framebufferForOutput()->byteBuffer();
  return {at[0], at[1], at[2], at[3]};
}

using Graph = GpuTest;

TEST_F(Graph, TargetsAreAddedOnceAndToldWhenTheyLeave) {
  const auto filter = GPUImageFilter::create();
  const auto other = std::make_shared<Recorder>();
  connect(filter);
  filter->addTarget(sink_);
  filter->addTarget(other);
  EXPECT_EQ(filter->targets(), (std::vector<std::shared_ptr<GPUImageInput>>{sink_, other}));
  source_->turn = kGPUImageTurnLeft;
  send(7);
  EXPECT_EQ(sink_->size, (Size{18, 32}));
  EXPECT_EQ(other->times, std::vector<std::int64_t>{7});
  EXPECT_EQ(other->last->size(), (Size{18, 32}));

  filter->removeTarget(std::make_shared<Recorder>());
  filter->removeTarget(sink_);
  EXPECT_EQ(sink_->ends, 1);
  EXPECT_EQ(sink_->size, Size{});
  filter->endProcessing();
  filter->endProcessing();
  EXPECT_EQ(other->ends, 1);
  send();
  EXPECT_EQ(sink_->times.size(), 1U);
  filter->removeAllTargets();
  EXPECT_EQ(other->ends, 1);
  EXPECT_EQ(other->size, Size{});
  EXPECT_TRUE(filter->targets().empty());
}

TEST_F(Graph, FramesGoRoundTheCacheWithBalancedLocks) {
  const auto filter = GPUImageFilter::createWithFragmentShader(kUniformColor);
  connect(filter);
  filter->addTarget(std::make_shared<Recorder>());
  GPUImageFramebuffer* inBlock = nullptr;
  filter->setFrameProcessingCompletionBlock([&](GPUImageOutput& output, MediaTime time) {
    inBlock = output.framebufferForOutput().get();
    EXPECT_EQ(inBlock->framebufferReferenceCount(), 1U);
    EXPECT_EQ(sink_->times.size(), static_cast<std::size_t>(time.value)) << "before the targets";
  });
  for (int frame = 0; frame < 3; ++frame) {
    send(frame);
    EXPECT_EQ(sink_->last.get(), inBlock);
    EXPECT_EQ(sink_->last->framebufferReferenceCount(), 0U);
    EXPECT_FALSE(filter->framebufferForOutput());
  }
}

TEST_F(Graph, OnlyAnExactCopyOfAnInputOfOnesOwnIsNotDrawn) {
  const auto filter = GPUImageFilter::create();
  const auto rival = std::make_shared<Recorder>();
  connect(filter);
  // The source draws once itself.
  const auto draws = [&] {
    const auto before = counted();
    send();
    EXPECT_EQ(sink_->last->framebufferReferenceCount(), 0U);
    return (counted() - before).draws - 1;
  };
  EXPECT_EQ(draws(), 0U);
  filter->forceProcessingAtSize({16, 9});
  EXPECT_EQ(draws(), 1U);
  EXPECT_EQ(sink_->size, (Size{16, 9}));
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
  connect(filter);
  struct Case {
    int turn;
    Size bounds, output;
  };
  for (const auto& [turn, bounds, output] :
       {Case{kGPUImageTurnNone, {640, 640}, {640, 360}}, Case{kGPUImageTurnLeft, {640, 640}, {360, 640}},
        Case{kGPUImageTurn180, {80, 9}, {16, 9}}, Case{9, {}, {32, 18}}}) {
    source_->turn = static_cast<GPUImageInputTurn>(turn);
    filter->forceProcessingAtSizeRespectingAspectRatio(bounds);
    send();
    EXPECT_EQ(sink_->last->size(), output) << turn;
  }
  const auto crop = GPUImageCropFilter::create({0, 0.125, 1, 0.75});
  onQueue([&] { crop->setInputSize({720, 1280}, 0); });
  EXPECT_EQ(crop->outputFrameSize(), (Size{720, 960}));
}

TEST_F(Graph, FiltersOfOneProgramKeepTheirOwnUniforms) {
  std::vector<Pixel> colors;
  std::vector<std::shared_ptr<GPUImageFilter>> filters;
  for (const auto& color : {GPUImageFilter::Vector3{1, 0, 0}, {0, 0, 1}}) {
    filters.push_back(GPUImageFilter::createWithFragmentShader(kUniformColor));
    filters.back()->setFrameProcessingCompletionBlock(
        [&](GPUImageOutput& output, MediaTime) { colors.push_back(firstPixel(output)); });
    filters.back()->setFloatVec3(color, "color");
    filters.back()->setFloat(0, "alpha");
    source_->addTarget(filters.back());
  }
  EXPECT_EQ(filters[0]->filterProgram(), filters[1]->filterProgram());
  filters[0]->setFloat(1, "alpha");
  send();
  send();
  const Pixel red{0, 0, 255, 255};
  const Pixel blue{255, 0, 0, 0};
  EXPECT_EQ(colors, (std::vector{red, blue, red, blue}));
}

TEST_F(Graph, StillCaptureKeepsOneFrameAndWaitsThreeSeconds) {
  const auto filter = GPUImageFilter::create();
  connect(filter);
  filter->useNextFrameForImageCapture();
  EXPECT_FALSE(filter->newCGImageFromCurrentlyProcessedOutput());
  EXPECT_EQ(GpuPlatform::lastLimit.load(), std::chrono::seconds(3));

  // Two frames come before it is taken; the earlier one goes back.
  send();
  const auto former = filter->framebufferForOutput();
  send();
  EXPECT_EQ(former->framebufferReferenceCount(), 0U);
  auto image = filter->newCGImageFromCurrentlyProcessedOutput();
  ASSERT_TRUE(image);
  EXPECT_EQ(image->width(), 32U);
  EXPECT_EQ(image->bytes()[5], picture_->plane(0).base[5]);
  const auto kept = filter->framebufferForOutput();
  EXPECT_EQ(kept->framebufferReferenceCount(), 1U);
  image.reset();
  EXPECT_EQ(kept->framebufferReferenceCount(), 0U);
  send();
  EXPECT_FALSE(filter->framebufferForOutput());
  GpuPlatform::lastLimit = std::chrono::nanoseconds(0);
  filter->useNextFrameForImageCapture();
  EXPECT_FALSE(filter->newCGImageFromCurrentlyProcessedOutput());
  EXPECT_EQ(GpuPlatform::lastLimit.load(), std::chrono::seconds(3)) << "each capture waits for a frame of its own";
}

class TwoInputs : public GpuTest {
 protected:
  TwoInputs() {
    connect(filter_);
    second_->addTarget(filter_);
  }
  void sendSecond(std::int64_t time) { second_->send(*picture_, MediaTime::make(time, 30)); }

  const std::shared_ptr<GPUImageTwoInputFilter> filter_ = GPUImageTwoInputFilter::createWithFragmentShader(
      "varying highp vec2 textureCoordinate; varying highp vec2 textureCoordinate2; uniform sampler2D "
      "inputImageTexture; "
      "uniform sampler2D inputImageTexture2; void main() { gl_FragColor = vec4(texture2D(inputImageTexture, "
      "textureCoordinate).rg, texture2D(inputImageTexture2, textureCoordinate2).ba); }");
  const std::shared_ptr<PictureSource> second_ = std::make_shared<PictureSource>();
};

TEST_F(TwoInputs, MovingPicturesArePaired) {
  send(0);
  send(1);
  const auto before = counted();
  send(2);
  EXPECT_EQ((counted() - before).glObjects, 0U) << "a frame that is replaced goes back";
  EXPECT_TRUE(sink_->times.empty());
  sendSecond(10);
  sendSecond(11);
  send(3);
  EXPECT_EQ(sink_->times, (std::vector<std::int64_t>{2, 3})) << "the first input's time, once a pair";
}

TEST_F(TwoInputs, MovingPicturesDoNotWaitForAStillOne) {
  second_->send(*picture_, MediaTime::indefinite());
  send(1);
  send(2);
  EXPECT_EQ(sink_->times, (std::vector<std::int64_t>{1, 2}));
}

TEST_F(TwoInputs, AnUncheckedInputDoesNotHoldTheOtherUp) {
  filter_->disableSecondFrameCheck();
  send(1);
  send(2);
  sendSecond(6);
  EXPECT_EQ(sink_->times, (std::vector<std::int64_t>{1, 2})) << "the first input is waited for";
}

TEST_F(TwoInputs, EachInputTurnsByItself) {
  second_->turn = kGPUImageTurnFlipVertical;
  Pixel corner{};
  filter_->setFrameProcessingCompletionBlock([&](GPUImageOutput& output, MediaTime) { corner = firstPixel(output); });
  sendSecond(1);
  send(1);
  const auto& plane = picture_->plane(0);
  const auto* const below = plane.base + 17 * plane.bytesPerRow;
  EXPECT_EQ(corner, (Pixel{below[0], plane.base[1], plane.base[2], below[3]}));
}

}  // namespace
}  // namespace zellive::test
