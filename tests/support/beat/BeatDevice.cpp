// A camera or a microphone of a PipeWire daemon, for tests: `beat_device camera NAME WIDTH HEIGHT RATE` or
// `beat_device microphone NAME`. With each second of the monotonic clock, a white field flashes in the middle of an
// otherwise dark picture with a red square at its left edge, and a tone of 1 kHz sounds, both for 100 ms; so a
// recording tells how well sound and picture agree, and whether the picture is mirrored. Ending the program unplugs the
// device.
#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numbers>
#include <string>

namespace {

constexpr std::int64_t second = 1'000'000'000;
constexpr std::int64_t beat = second / 10;

std::int64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * second + time.tv_nsec;
}

/// What both kinds share: the stream, and the loop that it runs on.
struct Device {
  Device(const std::string& name, pw_properties* properties, const pw_stream_events& events)
      : loop(pw_main_loop_new(nullptr)) {
    stream = pw_stream_new_simple(pw_main_loop_get_loop(loop), name.c_str(), properties, &events, this);
  }
  [[nodiscard]] int run(const spa_pod* format, std::uint32_t flags) {
    const spa_pod* params[] = {format};
    if (stream == nullptr ||
        pw_stream_connect(stream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                          static_cast<pw_stream_flags>(flags | PW_STREAM_FLAG_MAP_BUFFERS), params, 1) < 0) {
      std::fprintf(stderr, "no connection to PipeWire\n");
      return 1;
    }
    return pw_main_loop_run(loop);
  }
  /// Ends with the daemon.
  static void stateChanged(void* data, pw_stream_state, pw_stream_state state, const char*) {
    if (state == PW_STREAM_STATE_ERROR || state == PW_STREAM_STATE_UNCONNECTED) {
      pw_main_loop_quit(static_cast<Device*>(data)->loop);
    }
  }
  pw_main_loop* const loop;
  pw_stream* stream = nullptr;
};

struct Camera : Device {
  Camera(const std::string& name, std::uint32_t pixelsAcross, std::uint32_t pixelsDown, std::uint32_t perSecond)
      : Device(name,
               pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_NODE_NAME, name.c_str(),
                                 PW_KEY_NODE_DESCRIPTION, name.c_str(), nullptr),
               events()),
        width(pixelsAcross),
        height(pixelsDown),
        rate(perSecond) {
    timer = pw_loop_add_timer(
        pw_main_loop_get_loop(loop), [](void* data, std::uint64_t) { static_cast<Camera*>(data)->tick(); }, this);
  }

  static const pw_stream_events& events() {
    static const pw_stream_events all = [] {
      pw_stream_events set{};
      set.version = PW_VERSION_STREAM_EVENTS;
      set.state_changed = [](void* data, pw_stream_state before, pw_stream_state state, const char* error) {
        stateChanged(data, before, state, error);
        static_cast<Camera*>(data)->follow(state);
      };
      set.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
        if (id == SPA_PARAM_Format && param != nullptr) {
          static_cast<Camera*>(data)->offerBuffers();
        }
      };
      set.process = [](void* data) { static_cast<Camera*>(data)->deliver(); };
      return set;
    }();
    return all;
  }

  void follow(pw_stream_state state) {
    running = state == PW_STREAM_STATE_STREAMING;
    if (running) {
      number = now() * rate / second;
      schedule();
    }
  }
  void offerBuffers() const {
    std::array<std::uint8_t, 512> memory{};
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), memory.size());
    const auto bytes = static_cast<std::int32_t>(width * height * 3 / 2);
    const auto* pod = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
        SPA_POD_CHOICE_RANGE_Int(4, 2, 16), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
        SPA_POD_Int(bytes), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(static_cast<std::int32_t>(width))));
    const spa_pod* params[] = {pod};
    pw_stream_update_params(stream, params, 1);
  }
  /// Pictures are taken at whole parts of a second, so that one falls on each beat.
  void schedule() {
    const std::int64_t due = (++number) * second / rate;
    timespec time{due / second, due % second};
    pw_loop_update_timer(pw_main_loop_get_loop(loop), timer, &time, nullptr, true);
  }
  /// A picture is handed over a frame's time after it was taken, as by a camera that has to expose and read it out.
  void tick() {
    if (running) {
      taken = (number - 1) * second / rate;
      pw_stream_trigger_process(stream);
      schedule();
    }
  }
  void deliver() {
    auto* buffer = pw_stream_dequeue_buffer(stream);
    if (buffer == nullptr) {
      return;
    }
    auto& data = buffer->buffer->datas[0];
    if (auto* luma = static_cast<std::uint8_t*>(data.data); luma != nullptr) {
      draw(luma);
      data.chunk->offset = 0;
      data.chunk->stride = static_cast<std::int32_t>(width);
      data.chunk->size = width * height * 3 / 2;
    }
    pw_stream_queue_buffer(stream, buffer);
  }
  void draw(std::uint8_t* luma) const {
    const std::size_t pixels = std::size_t{width} * height;
    std::memset(luma, 16, pixels);
    std::memset(luma + pixels, 128, pixels / 2);
    if (taken % second < beat) {
      for (std::size_t row = height / 8; row < height * 3 / 8; ++row) {
        std::memset(luma + row * width + width / 4, 235, width / 2);
      }
    }
    for (std::size_t row = height * 3 / 8; row < height / 2; ++row) {  // Rows of chroma: the lower part.
      for (std::size_t column = 0; column < width / 8; ++column) {
        luma[(row * 2) * width + column] = luma[(row * 2 + 1) * width + column] = 81;
        luma[pixels + row * width + column] = column % 2 == 0 ? 90 : 240;
      }
    }
  }

  const std::uint32_t width;
  const std::uint32_t height;
  const std::uint32_t rate;
  spa_source* timer = nullptr;
  bool running = false;
  std::int64_t number = 0;
  std::int64_t taken = 0;
};

struct Microphone : Device {
  static constexpr std::int64_t rate = 48000;

  explicit Microphone(const std::string& name)
      : Device(name,
               pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Playback", PW_KEY_NODE_NAME,
                                 (name + "-sound").c_str(), PW_KEY_TARGET_OBJECT, name.c_str(), PW_KEY_NODE_LATENCY,
                                 "512/48000", nullptr),
               events()) {}

  static const pw_stream_events& events() {
    static const pw_stream_events all = [] {
      pw_stream_events set{};
      set.version = PW_VERSION_STREAM_EVENTS;
      set.state_changed = stateChanged;
      set.process = [](void* data) { static_cast<Microphone*>(data)->deliver(); };
      return set;
    }();
    return all;
  }

  /// What sounds from now on: the daemon hands it out a cycle later, when it has sounded.
  void deliver() {
    auto* buffer = pw_stream_dequeue_buffer(stream);
    if (buffer == nullptr) {
      return;
    }
    auto& data = buffer->buffer->datas[0];
    auto* samples = static_cast<std::int16_t*>(data.data);
    const auto room = static_cast<std::int64_t>(data.maxsize / sizeof(std::int16_t));
    const auto count = buffer->requested > 0 ? std::min(static_cast<std::int64_t>(buffer->requested), room) : room;
    const std::int64_t time = now();
    const std::int64_t heard = time / second * rate + time % second * rate / second;
    if (std::abs(heard - position) > rate / 10) {
      position = heard;
    }
    for (std::int64_t i = 0; samples != nullptr && i < count; ++i, ++position) {
      const std::int64_t inSecond = position % rate;
      samples[i] = inSecond * second >= beat * rate
                       ? std::int16_t{0}
                       : static_cast<std::int16_t>(std::lround(
                             8000 * std::sin(2 * std::numbers::pi * 1000 * static_cast<double>(inSecond) / rate)));
    }
    data.chunk->offset = 0;
    data.chunk->stride = sizeof(std::int16_t);
    data.chunk->size = static_cast<std::uint32_t>(count * static_cast<std::int64_t>(sizeof(std::int16_t)));
    pw_stream_queue_buffer(stream, buffer);
  }

  std::int64_t position = 0;
};

std::uint32_t numberOf(const char* text) { return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10)); }

}  // namespace

int main(int argc, char** argv) {
  pw_init(nullptr, nullptr);
  std::array<std::uint8_t, 512> memory{};
  spa_pod_builder builder{};
  spa_pod_builder_init(&builder, memory.data(), memory.size());
  if (argc == 6 && std::string(argv[1]) == "camera") {
    Camera camera(argv[2], numberOf(argv[3]), numberOf(argv[4]), numberOf(argv[5]));
    spa_video_info_raw format{};
    format.format = SPA_VIDEO_FORMAT_NV12;
    format.size = {camera.width, camera.height};
    format.framerate = {camera.rate, 1};
    return camera.run(spa_format_video_raw_build(&builder, SPA_PARAM_EnumFormat, &format), PW_STREAM_FLAG_DRIVER);
  }
  if (argc == 3 && std::string(argv[1]) == "microphone") {
    Microphone microphone(argv[2]);
    spa_audio_info_raw format{};
    format.format = SPA_AUDIO_FORMAT_S16;
    format.rate = Microphone::rate;
    format.channels = 1;
    format.position[0] = SPA_AUDIO_CHANNEL_MONO;
    return microphone.run(spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &format),
                          PW_STREAM_FLAG_RT_PROCESS);
  }
  std::fprintf(stderr, "usage: %s camera NAME WIDTH HEIGHT RATE | microphone NAME\n", argv[0]);
  return 2;
}
