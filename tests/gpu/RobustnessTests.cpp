#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "tests/gpu/Golden.h"
#include "tests/gpu/GpuTest.h"
#include "tests/support/Event.h"
#include "tests/support/ManualPlatform.h"
#include "zellive/gpu/GPUImageAlphaBlendFilter.h"

namespace zellive::test {
namespace {

constexpr char kReadsInput[] =
    "varying highp vec2 textureCoordinate; uniform sampler2D inputImageTexture; void main() { gl_FragColor = "
    "texture2D(inputImageTexture, textureCoordinate).bgra; }";

struct Fault {
  const char* name;
  std::string vertexShader, fragmentShader;
  std::vector<const char*> messages;
};
void PrintTo(const Fault& fault, std::ostream* stream) { *stream << fault.name; }

const std::string kVertex = "attribute vec4 position; void main() { gl_Position = position; }";
const std::string kFragment = "void main() { gl_FragColor = vec4(1); }";
constexpr char kNoText[] = "Failed to load vertex shader";
constexpr char kBadVertex[] = "Failed to compile vertex shader";
constexpr char kBadFragment[] = "Failed to compile fragment shader";
const Fault kFaults[] = {
    {"fragment", kVertex, "void main() { gl_FragColor = undeclaredThing; }", {kBadFragment}},
    {"vertex", "nonsense", kFragment, {kBadVertex}},
    {"empty", kVertex, "", {kNoText, kBadFragment}},
    {"encoding", "\xC3(", kFragment, {kNoText, kBadVertex}},
    {"link", kVertex, "varying highp vec2 none; void main() { gl_FragColor = none.xyxy; }", {}},
};

class BadShader : public GpuTest, public testing::WithParamInterface<Fault> {};
INSTANTIATE_TEST_SUITE_P(All, BadShader, testing::ValuesIn(kFaults));

TEST_P(BadShader, IsLoggedAndFramesGoOnInTheBackgroundColor) {
  std::vector<std::string> messages;
  setLogHandler([&](LogLevel, std::string_view, int, std::string_view message) { messages.emplace_back(message); });
  const auto filter = GPUImageFilter::createWithShaders(GetParam().vertexShader, GetParam().fragmentShader);
  setLogHandler({});
  auto expected = GetParam().messages;
  expected.insert(expected.end(),
                  {"Program link log: ", "Fragment shader compile log: ", "Vertex shader compile log: "});
  ASSERT_EQ(messages.size(), expected.size());
  for (std::size_t i = 0; i < messages.size(); ++i) {
    EXPECT_TRUE(messages[i].starts_with(expected[i])) << messages[i];
  }
  const auto says = [](const std::string& message) { return message.find("undeclaredThing") != std::string::npos; };
  EXPECT_EQ(std::ranges::any_of(messages, says), says(GetParam().fragmentShader)) << "the compiler's own words";
  EXPECT_FALSE(filter->filterProgram());
  filter->setBackgroundColorRed(0, 1, 0, 1);
  filter->setFloat(1, "anything");
  connect(filter);
  send();
  ASSERT_EQ(sink_->times.size(), 1U);
  EXPECT_TRUE(matches(sink_->last->pixelBuffer(), 32, 18, 0, [](auto, auto) { return Color{0, 255, 0, 255}; }));
}

using Robustness = GpuTest;

TEST_F(Robustness, FramesOfImpossibleSizesPass) {
  const LogCapture log;
  const auto filter = GPUImageFilter::createWithFragmentShader(kReadsInput);
  connect(filter);
  const double most = GPUImageContext::maximumTextureSizeForThisDevice();
  EXPECT_EQ(GPUImageContext::sizeThatFitsWithinATextureForSize({2 * most, most}), (Size{most, most / 2}));
  EXPECT_EQ(GPUImageContext::sizeThatFitsWithinATextureForSize({most, 3}), (Size{most, 3}));
  const Size sizes[] = {{most + 1, 4}, {0.5, 4}, {-1, -1}, {1e300, 1e300}, {std::nan(""), 4}};
  for (const Size size : sizes) {
    filter->forceProcessingAtSize(size);
    send();
    EXPECT_FALSE(sink_->last->pixelBuffer());
    EXPECT_EQ(sink_->last->byteBuffer(), nullptr);
    EXPECT_FALSE(sink_->last->newCGImageFromFramebufferContents());
  }
  EXPECT_EQ(log.count("FBO size: "), std::size(sizes));
  filter->forceProcessingAtSize({});
  send();
  EXPECT_TRUE(sink_->last->pixelBuffer());
  EXPECT_EQ(sink_->times.size(), std::size(sizes) + 1);
}

TEST_F(Robustness, FiltersComeAndGoWhileFramesFly) {
  const auto steady = GPUImageFilter::create();
  connect(steady);
  whileMeddling([&] { send(); },
                [&] {
                  for (int i = 0; i < 200; ++i) {
                    GpuPlatform::contextLost = i % 32 > 28;
                    const auto filter = GPUImageAlphaBlendFilter::create();
                    filter->disableSecondFrameCheck();
                    source_->addTarget(filter);
                    filter->addTarget(sink_, 1);
                    filter->setMix(0.3);
                    filter->setBackgroundColorRed(0, 0, 1, 1);
                    filter->setFrameProcessingCompletionBlock(
                        [](GPUImageOutput& output, MediaTime) { (void)output.framebufferForOutput()->pixelBuffer(); });
                    filter->forceProcessingAtSize({static_cast<double>(8 + i % 3), 8});
                    EXPECT_FALSE(source_->targets().empty());
                    if (i % 2 == 0) {
                      source_->removeTarget(filter);
                    } else {
                      source_->removeAllTargets();
                      source_->addTarget(steady);
                    }
                    if (i % 16 == 0) {
                      GPUImageContext::sharedImageProcessingContext().releaseContext();
                    }
                  }
                });
  sink_->times.clear();
  send(-1);
  EXPECT_EQ(sink_->times, std::vector<std::int64_t>{-1});
}

TEST_F(Robustness, ATargetThatLeavesDuringAFrameDoesNotDisturbTheOthers) {
  struct Leaver : Recorder, std::enable_shared_from_this<Leaver> {
    explicit Leaver(GPUImageOutput& output) : from(output) {}
    GPUImageOutput& from;
    void newFrameReadyAtTime(MediaTime time, std::size_t index) override {
      Recorder::newFrameReadyAtTime(time, index);
      from.removeTarget(shared_from_this());
    }
  };
  const auto leaver = std::make_shared<Leaver>(*source_);
  source_->addTarget(leaver);
  source_->addTarget(sink_);
  send();
  send();
  EXPECT_EQ(leaver->times.size(), 1U);
  EXPECT_EQ(sink_->times.size(), 2U);
  EXPECT_EQ(sink_->last->framebufferReferenceCount(), 0U);
}

/// A chain of which every part is used, without a picture coming out.
void expectDarkPipeline() {
  const auto source = std::make_shared<PictureSource>();
  const auto filter = GPUImageFilter::createWithFragmentShader(kReadsInput);
  const auto sink = std::make_shared<Recorder>();
  source->addTarget(filter);
  filter->addTarget(sink);
  filter->setFloat(1, "anything");
  filter->useNextFrameForImageCapture();
  for (int frame = 0; frame < 3; ++frame) {
    source->send(*samplePicture(PixelFormat::BGRA, 8, 8), MediaTime::make(frame, 30));
  }
  EXPECT_EQ(sink->times.size(), 3U);
  EXPECT_FALSE(sink->last->pixelBuffer());
  EXPECT_EQ(sink->last->byteBuffer(), nullptr);
  EXPECT_FALSE(filter->newCGImageFromCurrentlyProcessedOutput());
  GPUImageContext::sharedImageProcessingContext().presentBufferForDisplay();
  GPUImageContext::sharedImageProcessingContext().releaseContext();
}

TEST_F(Robustness, ALostContextLeavesThePipelineDark) {
  const auto framebuffer = fetch(11, 3);
  const LogCapture log;
  GpuPlatform::contextLost = true;
  EXPECT_FALSE(framebuffer->pixelBuffer());
  expectDarkPipeline();
  GpuPlatform::contextLost = false;
  EXPECT_EQ(log.count(""), 0U) << "the context itself says it";
  EXPECT_TRUE(framebuffer->pixelBuffer());
}

TEST(RobustnessDeathTest, AMachineWithoutEglSaysSoOnce) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        setenv("__EGL_VENDOR_LIBRARY_DIRS", "/nonexistent", 1);
        const LogCapture log;
        expectDarkPipeline();
        EXPECT_EQ(GPUImageContext::maximumTextureSizeForThisDevice(), 0);
        EXPECT_FALSE(GPUImageContext::deviceSupportsRedTextures());
        EXPECT_EQ(GPUImageContext::sizeThatFitsWithinATextureForSize({3, 4}), (Size{3, 4}));
        EXPECT_EQ(log.count(""), 1U);
        EXPECT_EQ(log.count(LogLevel::Warning, "Live: no OpenGL ES on this machine"), 1U);
        std::_Exit(testing::Test::HasFailure() ? 1 : 0);
      },
      testing::ExitedWithCode(0), "");
}

TEST(RobustnessDeathTest, AProcessMayExitWhileFramesAreDrawn) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_EXIT(
      {
        const auto source = std::make_shared<PictureSource>();
        source->addTarget(GPUImageFilter::createWithFragmentShader(kReadsInput));
        auto& drawn = *new Event;  // Threads outlive what is static.
        std::thread([source, &drawn] {
          const auto picture = samplePicture(PixelFormat::BGRA, 256, 256);
          for (std::int64_t frame = 0;; ++frame) {
            runSynchronouslyOnVideoProcessingQueue([&] { source->send(*picture, MediaTime::make(frame, 30)); });
            drawn.set();
          }
        }).detach();
        (void)drawn.wait();
        std::exit(0);
      },
      testing::ExitedWithCode(0), "");
}

/// ZELLIVE_TEST_PICTURE asks for pictures of another size; a camera's, such as 1280x720, take a software renderer
/// many minutes.
Size pictureSize() {
  Size size{64, 48};
  if (const char* const asked = std::getenv("ZELLIVE_TEST_PICTURE")) {
    EXPECT_EQ(std::sscanf(asked, "%lfx%lf", &size.width, &size.height), 2) << asked;
  }
  return size;
}

/// Frames of a running pipeline cost no object of the GPU's and no memory.
TEST(SteadyState, TenThousandFramesAllocateNothing) {
  const auto source = std::make_shared<PictureSource>();
  const auto still = std::make_shared<PictureSource>();
  const auto first = GPUImageFilter::create();
  const auto blend = GPUImageAlphaBlendFilter::create();
  const auto output = GPUImageFilter::createWithFragmentShader(kReadsInput);
  source->addTarget(first);
  first->addTarget(blend);
  still->addTarget(blend);
  blend->addTarget(output);
  std::array<std::shared_ptr<PixelBuffer>, 3> kept;  // As an encoder keeps pictures for a while.
  std::size_t frames = 0;
  output->setFrameProcessingCompletionBlock([&](GPUImageOutput& stage, MediaTime) {
    kept[frames++ % kept.size()] = stage.framebufferForOutput()->pixelBuffer();
  });
  const auto size = pictureSize();
  const auto width = static_cast<std::size_t>(size.width);
  const auto height = static_cast<std::size_t>(size.height);
  const auto picture = samplePicture(PixelFormat::BGRA, width, height, 2);
  const auto mark = samplePicture(PixelFormat::BGRA, width, height);
  Counts before{};
  onQueue([&] {
    for (int frame = 0; frame < 10020; ++frame) {
      if (frame == 20) {
        before = counted();
      }
      const auto time = MediaTime::make(frame, 30);
      source->push(*picture, time);
      still->push(*mark, time);
    }
  });
  const auto spent = counted() - before;
  EXPECT_EQ(frames, 10020U);
  EXPECT_EQ(spent.glObjects, 0U);
  EXPECT_EQ(spent.textureStorages, 0U);
  EXPECT_EQ(spent.allocations, 0U);
  EXPECT_EQ(spent.reads, 10000U);
}

}  // namespace
}  // namespace zellive::test
