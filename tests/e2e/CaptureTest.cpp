#include <csignal>
#include <filesystem>
#include <numeric>

#include "tests/e2e/Beats.h"
#include "tests/e2e/Shown.h"
#include "tests/e2e/Tool.h"
#include "tests/support/PipeWireDaemon.h"
#include "tests/support/XvfbServer.h"

namespace zellive::test {
namespace {

class RecordingTest : public ServerTest {
 protected:
  /// How many media tags of the type the server has written by now, and the time stamp of the last.
  [[nodiscard]] std::pair<std::size_t, std::uint32_t> soFar(const std::string& stream, FlvTag::Type type) const {
    if (!std::filesystem::exists(server->recording(stream))) {
      return {};
    }
    const auto tags = FlvFile(server->recording(stream), FlvFile::Reading::AsFarAsItGoes).mediaTags(type);
    return {tags.size(), tags.empty() ? 0 : tags.back().timestamp};
  }
};

/// A daemon with a camera and a microphone that keep the same beat, each a program of its own.
class CaptureTest : public RecordingTest {
 protected:
  void SetUp() override {
    ServerTest::SetUp();
    if (!IsSkipped() && !PipeWireDaemon::available()) {
      GTEST_SKIP() << "PipeWire, WirePlumber or GStreamer is not installed; scripts/setup installs them";
    }
    if (!IsSkipped()) {
      daemon = std::make_unique<PipeWireDaemon>();
      plugIn();
    }
  }
  void plugInCamera() {
    camera = std::make_unique<Process>(
        std::vector<std::string>{ZELLIVE_BEAT_DEVICE, "camera", "beat-camera", "640", "480", "30"});
  }
  void plugIn() {
    plugInCamera();
    // A microphone with a rhythm of its own, as real ones have: left to itself, a daemon without one lets the camera
    // set the pace of the sound.
    const auto made =
        runProgram({"pw-cli", "create-node", "adapter",
                    "{ factory.name = support.null-audio-sink node.name = beat-mic node.description = "
                    "beat-mic media.class = Audio/Source/Virtual audio.position = MONO audio.rate = 48000 "
                    "object.linger = true }"});
    ASSERT_EQ(made.status, 0) << made.output << made.errors;
    microphone = std::make_unique<Process>(std::vector<std::string>{ZELLIVE_BEAT_DEVICE, "microphone", "beat-mic"});
    ASSERT_TRUE(waitUntil(
        [] {
          return runProgram({"pw-link", "beat-mic-sound:output_MONO", "beat-mic:input_MONO"}).status == 0;
        },
        30s))
        << daemon->log() << microphone->errors();
    ASSERT_TRUE(waitUntil(
        [] {
          return runProgram({ZELLIVE_PROGRAM, "devices", "--json"}).output.find("beat-camera") != std::string::npos;
        },
        30s))
        << daemon->log() << camera->errors();
  }
  [[nodiscard]] std::vector<std::string> command(const std::string& stream, std::vector<std::string> more) const {
    more.insert(more.end(), {"--camera", "beat-camera", "--microphone", "beat-mic", "--quality", "0", "--preset",
                             "ultrafast", "--json"});
    return toolCommand(server->url(stream), more);
  }

  std::unique_ptr<PipeWireDaemon> daemon;
  std::unique_ptr<Process> camera;
  std::unique_ptr<Process> microphone;
};

bool isRed(const Shown::Colour& colour) { return colour[0] > 180 && colour[1] < 70 && colour[2] < 70; }
bool isDark(const Shown::Colour& colour) {
  return std::ranges::all_of(colour, [](int part) { return part < 40; });
}

double median(std::vector<double> values) {
  std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
  return values.at(values.size() / 2);
}

TEST_F(CaptureTest, TheListSaysWhatTheDevicesCanDo) {
  const auto listed = nlohmann::json::parse(runProgram({ZELLIVE_PROGRAM, "devices", "--json"}).output);
  const auto named = [&](const char* kind, const char* name) {
    const auto found = std::ranges::find_if(listed[kind], [&](const auto& device) { return device["name"] == name; });
    return found == listed[kind].end() ? nlohmann::json() : *found;
  };
  const auto seen = named("cameras", "beat-camera");
  ASSERT_TRUE(seen.is_object()) << listed;
  EXPECT_EQ(seen["formats"][0]["encoding"], "NV12") << seen;
  EXPECT_EQ(seen["formats"][0]["width"], 640);
  EXPECT_EQ(seen["formats"][0]["max_frame_rate"], 30);
  const auto heard = named("microphones", "beat-mic");
  ASSERT_TRUE(heard.is_object()) << listed;
  EXPECT_EQ(heard["channels"], 1);
  EXPECT_EQ(heard["sample_rate"], 48000);
  EXPECT_TRUE(named("microphones", "tone").is_object() && named("cameras", "test card").is_object());
  EXPECT_EQ(listed["remark"], "");
}

TEST_F(CaptureTest, ViewersSeeAndHearTheDevicesInStepAndMirroredOnDemand) {
  for (const bool mirrored : {false, true}) {
    const std::string stream = mirrored ? "mirrored" : "plain";
    // The camera's own rate: of fewer pictures, the first of each flash may be one that is left out.
    std::vector<std::string> options{"--duration", "10", "--fps", "30"};
    if (mirrored) {
      options.emplace_back("--mirror");
    }
    const auto run = runProgram(command(stream, options));
    ASSERT_EQ(run.status, 0) << run.output << run.errors;
    const auto path = server->finishedRecording(stream);
    const Shown shown(path, 640, 480);
    EXPECT_TRUE(isRed(shown.at(mirrored ? 600 : 40, 420)));
    EXPECT_TRUE(isDark(shown.at(mirrored ? 40 : 600, 420)));
    const auto measured = offsets(path);
    ASSERT_GE(measured.size(), 7U);
    EXPECT_LE(std::abs(median(measured)), 0.040);
    const auto [least, most] = std::ranges::minmax(measured);
    std::printf("%s: picture later than sound by %.0f ms, from %.0f to %.0f, in %zu flashes\n", stream.c_str(),
                median(measured) * 1000, least * 1000, most * 1000, measured.size());
    const FlvFile file(path);
    const auto pictures = file.mediaTags(FlvTag::Video);
    EXPECT_GE(pictures.size(), 8U * 24 * 8 / 10) << "on a busy machine some are left out";
    EXPECT_GE(file.mediaTags(FlvTag::Audio).back().timestamp, 9000U);
  }
}

TEST_F(CaptureTest, ACameraOrADaemonThatDiesIsToldOfAndTakenUpAgain) {
  Process tool(command("troubled", {}));
  const auto lengthOf = [&](FlvTag::Type type) { return soFar("troubled", type).second; };
  ASSERT_TRUE(waitUntil([&] { return lengthOf(FlvTag::Video) > 1000 && lengthOf(FlvTag::Audio) > 1000; }, 30s))
      << tool.errors();

  camera->signal(SIGKILL);
  ASSERT_TRUE(tool.waitForText("the camera \"beat-camera\" has gone", 20s)) << tool.errors();
  const auto heard = lengthOf(FlvTag::Audio);
  EXPECT_TRUE(waitUntil([&] { return lengthOf(FlvTag::Audio) > heard + 1500; }, 20s)) << "the sound goes on";
  const auto seen = lengthOf(FlvTag::Video);
  plugInCamera();
  ASSERT_TRUE(tool.waitForText("delivers pictures again", 20s)) << tool.errors();
  EXPECT_TRUE(waitUntil([&] { return lengthOf(FlvTag::Video) > seen + 1000; }, 20s)) << "and so do the pictures";

  camera->signal(SIGSTOP);
  ASSERT_TRUE(tool.waitForText("the camera \"beat-camera\" delivers no pictures", 20s)) << tool.errors();
  camera->signal(SIGCONT);
  const auto silent = lengthOf(FlvTag::Video);
  EXPECT_TRUE(waitUntil([&] { return lengthOf(FlvTag::Video) > silent + 1000; }, 20s)) << tool.errors();

  daemon->kill();
  ASSERT_TRUE(tool.waitForText("PipeWire has ended", 20s)) << tool.errors();
  const auto before = lengthOf(FlvTag::Video);
  daemon->start();
  plugIn();
  EXPECT_TRUE(waitUntil(
      [&] { return lengthOf(FlvTag::Video) > before + 1000 && lengthOf(FlvTag::Audio) > before + 1000; }, 40s))
      << tool.errors();
  tool.signal(SIGINT);
  expectEnd(tool, 0, 10s);
  const auto text = tool.errors();
  EXPECT_EQ(text.find("PipeWire has ended"), text.rfind("PipeWire has ended")) << "once, not\n" << text;
  EXPECT_EQ(text.find("warning"), std::string::npos) << text;
}

TEST_F(RecordingTest, ThePreviewShowsTheWatermarkAndTheStreamDoesNot) {
  if (!XvfbServer::available()) {
    GTEST_SKIP() << "Xvfb is not installed; scripts/setup installs it";
  }
  const XvfbServer screen;
  const TemporaryDirectory directory;
  const auto mark = directory.path() + "/mark.png";
  ASSERT_EQ(
      runProgram({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "color=lime:s=100x60", "-frames:v", "1", mark}).status,
      0);
  Process tool(toolCommand(server->url("shown"),
                           {"--camera", "zellive.test-card", "--microphone", "zellive.tone", "--quality", "0",
                            "--preset", "ultrafast", "--preview", "--watermark", mark, "--pause-unfocused"}));
  ASSERT_TRUE(waitUntil([&] { return soFar("shown", FlvTag::Video).second > 1500; }, 30s)) << tool.errors();
  XClient client;
  unsigned long window = 0;
  ASSERT_TRUE(waitUntil([&] { return (window = client.find("test card")) != 0; }, 20s)) << tool.errors();
  const auto pixel = [&](std::size_t x, std::size_t y) {
    const auto shown = client.picture(window);
    const auto* bytes = shown ? shown->plane(0).base + y * shown->plane(0).bytesPerRow + x * 4 : nullptr;
    return shown ? std::array<int, 3>{bytes[2], bytes[1], bytes[0]} : std::array<int, 3>{};
  };
  const auto isLime = [&](const std::array<int, 3>& c) { return c[0] < 60 && c[1] > 200 && c[2] < 60; };
  EXPECT_TRUE(waitUntil([&] { return isLime(pixel(640 - 60, 40)); }, 20s)) << "the watermark's middle";
  EXPECT_GT(pixel(20, 20)[0], 150) << "the first bar beside it";

  client.giveFocus(window);
  client.giveFocus(1);
  EXPECT_TRUE(tool.waitForText("in the background", 20s)) << "another window is in use";
  client.giveFocus(window);
  EXPECT_TRUE(tool.waitForText("in front again", 20s));
  client.askToClose(window);
  EXPECT_TRUE(tool.waitForText("the preview is closed; the stream goes on", 20s)) << tool.errors();
  EXPECT_FALSE(tool.waitFor(1500ms));
  tool.signal(SIGINT);
  expectEnd(tool, 0, 10s);
  const Shown streamed(server->finishedRecording("shown"), 640, 480);
  EXPECT_FALSE(isLime(streamed.at(640 - 60, 40)));
}

TEST_F(RecordingTest, ClipsInPlaceOfDevicesStayInStepAndCostNoMoreInTime) {
  const TemporaryDirectory directory;
  const auto beats = directory.path() + "/beats.mkv";
  const auto made = runProgram(
      {"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
       "color=black:s=320x240:r=30:d=4,format=yuv420p,drawbox=x=iw/4:y=ih/8:w=iw/2:h=ih/4:color=white:t=fill:"
       "enable='lt(mod(t\\,1)\\,0.1)'",
       "-f", "lavfi", "-i", "aevalsrc='0.25*sin(2*PI*1000*t)*lt(mod(t,1),0.1)':s=48000:d=4", "-c:v", "libx264", "-bf",
       "0", "-c:a", "pcm_s16le", beats});
  ASSERT_EQ(made.status, 0) << made.errors;
  Process tool(toolCommand(server->url("clip"), {"--camera", "clip:" + beats, "--microphone", "clip:" + beats,
                                                 "--quality", "0", "--preset", "ultrafast"}));
  const auto countIn = [&](const char* folder) {
    const auto path = "/proc/" + std::to_string(tool.id()) + "/" + folder;
    return std::distance(std::filesystem::directory_iterator(path), std::filesystem::directory_iterator());
  };
  const auto reached = [&](std::uint32_t time) {
    return waitUntil([&] { return soFar("clip", FlvTag::Audio).second > time; }, 60s);
  };
  ASSERT_TRUE(reached(4000)) << tool.output() << tool.errors();
  const auto threads = countIn("task");
  const auto files = countIn("fd");
  ASSERT_TRUE(reached(14000)) << tool.output() << tool.errors();
  EXPECT_EQ(countIn("task"), threads);
  EXPECT_EQ(countIn("fd"), files);
  tool.signal(SIGINT);
  expectEnd(tool, 0, 10s);
  const auto measured = offsets(server->finishedRecording("clip"));
  ASSERT_GE(measured.size(), 11U) << "the clip begins again without a gap";
  EXPECT_LE(std::abs(median(measured)), 0.040);
  EXPECT_LE(std::abs(measured.back() - measured.front()), 0.040);
}

TEST_F(RecordingTest, CtrlZShowsAStillPictureAndKeepsTheSound) {
  Process tool(toolCommand(server->url("still"), {"--camera", "zellive.test-card", "--microphone", "zellive.tone",
                                                  "--quality", "0", "--preset", "ultrafast"}));
  const auto count = [&](FlvTag::Type type) { return soFar("still", type).first; };
  ASSERT_TRUE(waitUntil([&] { return count(FlvTag::Video) > 30 && count(FlvTag::Audio) > 60; }, 30s)) << tool.errors();
  tool.signal(SIGTSTP);
  ASSERT_TRUE(tool.waitForText("in the background", 10s));
  ASSERT_FALSE(tool.waitFor(1s));
  const auto sounds = count(FlvTag::Audio);
  const auto pictures = count(FlvTag::Video);
  ASSERT_TRUE(waitUntil([&] { return count(FlvTag::Audio) > sounds + 150; }, 20s)) << "three seconds of sound";
  EXPECT_LE(count(FlvTag::Video), pictures + 12) << "one picture a second, and what was under way";
  tool.signal(SIGCONT);
  ASSERT_TRUE(tool.waitForText("in front again", 10s));
  const auto then = count(FlvTag::Video);
  EXPECT_TRUE(waitUntil([&] { return count(FlvTag::Video) > then + 40; }, 20s)) << "the picture goes on";
  tool.signal(SIGINT);
  expectEnd(tool, 0, 10s);
}

TEST(CaptureMistakesTest, WithoutHardwareAVirtualDeviceIsNamed) {
  const TemporaryDirectory nobody;
  const std::vector<std::string> environment{
      "env", "-u", "DISPLAY", "-u", "WAYLAND_DISPLAY", "XDG_RUNTIME_DIR=" + nobody.path()};
  const auto run = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), environment.begin(), environment.end());
    return runProgram(std::move(arguments));
  };
  const auto listed = run({ZELLIVE_PROGRAM, "devices"});
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.errors, "zellive: PipeWire is not running; only virtual devices can be listed\n");
  for (const char* device : {"zellive.test-card", "zellive.tone", "zellive.speech", "libx264: H.264 High"}) {
    EXPECT_NE(listed.output.find(device), std::string::npos) << listed.output;
  }
  const auto url = "rtmp://127.0.0.1:" + std::to_string(freePort()) + "/live/x";
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"--camera"}, "no camera at present; name a virtual one: --camera zellive.test-card, or --camera clip:FILE"},
      {{"--microphone"}, "no microphone at present; name a virtual one: --microphone zellive."},
      {{"--microphone", "attic"}, "there is no microphone \"attic\"; there are"},
      {{"--camera", "clip:/nonexistent.mp4"}, "cannot open /nonexistent.mp4"},
      {{"--microphone", "clip:"}, "clip: needs a file"},
      {{"--camera", "zellive.test-card", "--preview"}, "the preview cannot be shown"},
  };
  for (const auto& [options, told] : cases) {
    const auto failed = run(toolCommand(url, options));
    EXPECT_EQ(failed.status, 1) << told;
    EXPECT_NE(failed.errors.find(told), std::string::npos) << failed.errors;
    EXPECT_EQ(failed.errors.find('\n'), failed.errors.size() - 1) << "one line: " << failed.errors;
  }
}

}  // namespace
}  // namespace zellive::test
