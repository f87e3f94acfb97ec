#include "zellive/platform/linux/PipeWireMicrophoneStream.h"

#include <pipewire/pipewire.h>
#include <spa/param/audio/format-utils.h>
#include <spa/utils/result.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "zellive/platform/Log.h"

namespace zellive {
namespace {

using namespace std::chrono_literals;

constexpr auto kLookInterval = 1s;
/// Looks without a block after which a microphone counts as silent: longer than a start or a change of device takes.
constexpr int kSilentLooks = 3;
/// Looks after which a pause is no change of device under way.
constexpr int kPausedLooks = 2;
/// Frames; the daemon's greatest at 48 kHz.
constexpr std::uint32_t kLongestBlock = 8192;

}  // namespace

PipeWireMicrophoneStream::PipeWireMicrophoneStream(std::shared_ptr<PipeWireSources> sources,
                                                   const AudioStreamBasicDescription& format,
                                                   AudioInputDescription target, AudioInputUnit::InputCallback callback)
    : sources_(std::move(sources)), format_(format), target_(std::move(target)), callback_(std::move(callback)) {}

// ---- Control

void PipeWireMicrophoneStream::start() {
  started_ = true;
  gate_.open();
  settle();
}

void PipeWireMicrophoneStream::stop() {
  gate_.close();
  if (started_) {
    settle();
  }
}

void PipeWireMicrophoneStream::close() {
  closed_ = true;
  stop();
}

/// Brings the stream to what was asked for last.
void PipeWireMicrophoneStream::settle() {
  if (gate_.isInside()) {
    // Whoever holds the lock may be waiting for this very callback.
    onQueue(&PipeWireMicrophoneStream::settle);
    return;
  }
  sources_->use();
  const PipeWireConnection::Lock lock(sources_->connection());
  if (closed_) {
    wanted_ = false;
    drop();
    if (std::exchange(listens_, false)) {
      sources_->remove(*this);
    }
    return;
  }
  want(gate_.isOpen());
  if (!std::exchange(listens_, true)) {
    sources_->add(*this);
  }
}

void PipeWireMicrophoneStream::want(bool wanted) {
  if (std::exchange(wanted_, wanted) == wanted) {
    return;
  }
  if (!wanted && interrupted_) {
    return;  // The stream stays, and so the end of the interruption will be seen.
  }
  drop();
  interrupted_ = false;
  told_ = Trouble::None;
  if (wanted) {
    quietLooks_ = 0;
    sourcesChanged();
    lookLater();
  }
}

void PipeWireMicrophoneStream::onQueue(void (PipeWireMicrophoneStream::*task)()) {
  sources_->queue()->async([self = shared_from_this(), task] { (self.get()->*task)(); });
}

// ---- The stream

void PipeWireMicrophoneStream::sourcesChanged() {
  const bool possible = sources_->isConnected() && (target_.uniqueID.empty() || sources_->has(target_.uniqueID));
  if (!possible) {
    sourcesLost();
  } else if (wanted_ && stream_ == nullptr) {
    make();
  }
}

void PipeWireMicrophoneStream::sourcesLost() {
  drop();
  setInterrupted(false);
}

void PipeWireMicrophoneStream::make() {
  pw_properties* const properties =
      pw_properties_new(PW_KEY_MEDIA_TYPE, "Audio", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_NODE_NAME, "zellive",
                        PW_KEY_NODE_DESCRIPTION, "ZelLive", PW_KEY_NODE_LATENCY, "512/48000", nullptr);
  int flags = PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS | PW_STREAM_FLAG_RT_PROCESS;
  if (!target_.uniqueID.empty()) {
    pw_properties_set(properties, PW_KEY_TARGET_OBJECT, target_.uniqueID.c_str());
    flags |= PW_STREAM_FLAG_DONT_RECONNECT;  // Rather none than another microphone.
  }
  copy_.reserve(std::size_t{kLongestBlock} * format_.mBytesPerFrame);  // While nobody calls back.
  failure_.clear();
  source_.clear();
  pausedLooks_ = 0;
  stream_ = pw_stream_new(sources_->connection().core(), "Live", properties);
  if (stream_ == nullptr) {
    failure_ = "no stream can be made";
    return;
  }
  pw_stream_add_listener(stream_, &hook_, &kEvents, this);

  spa_audio_info_raw info{};
  info.format = SPA_AUDIO_FORMAT_S16_LE;
  info.rate = static_cast<std::uint32_t>(format_.mSampleRate);
  info.channels = format_.mChannelsPerFrame;
  if (info.channels <= 2) {
    info.position[0] = info.channels == 1 ? SPA_AUDIO_CHANNEL_MONO : SPA_AUDIO_CHANNEL_FL;
    info.position[1] = SPA_AUDIO_CHANNEL_FR;
  } else {
    info.flags = SPA_AUDIO_FLAG_UNPOSITIONED;
  }
  std::array<std::uint8_t, 1024> memory;
  spa_pod_builder builder{};
  spa_pod_builder_init(&builder, memory.data(), memory.size());
  const spa_pod* format = spa_format_audio_raw_build(&builder, SPA_PARAM_EnumFormat, &info);
  const int result =
      pw_stream_connect(stream_, PW_DIRECTION_INPUT, PW_ID_ANY, static_cast<pw_stream_flags>(flags), &format, 1);
  if (result < 0) {
    failure_ = spa_strerror(result);
  }
}

void PipeWireMicrophoneStream::drop() {
  if (stream_ != nullptr) {
    pw_stream_destroy(stream_);  // Waits for the callback under way.
    stream_ = nullptr;
    state_ = PW_STREAM_STATE_UNCONNECTED;
  }
}

const pw_stream_events PipeWireMicrophoneStream::kEvents = {
    .version = PW_VERSION_STREAM_EVENTS,
    .destroy = nullptr,
    .state_changed =
        [](void* self, pw_stream_state, pw_stream_state state, const char* error) {
          static_cast<PipeWireMicrophoneStream*>(self)->stateChanged(state, error);
        },
    .control_info = nullptr,
    .io_changed = nullptr,
    .param_changed = nullptr,
    .add_buffer = nullptr,
    .remove_buffer = nullptr,
    .process = [](void* self) { static_cast<PipeWireMicrophoneStream*>(self)->process(); },
    .drained = nullptr,
    .command = nullptr,
    .trigger_done = nullptr,
};

void PipeWireMicrophoneStream::stateChanged(pw_stream_state state, const char* error) {
  state_ = state;
  if (state == PW_STREAM_STATE_ERROR) {
    failure_ = error != nullptr ? error : "for a reason that nobody tells";
  } else if (state == PW_STREAM_STATE_STREAMING) {
    failure_.clear();
    if (interrupted_) {
      onQueue(&PipeWireMicrophoneStream::noticeResumption);
    }
  }
}

void PipeWireMicrophoneStream::process() {
  while (pw_buffer* const buffer = pw_stream_dequeue_buffer(stream_)) {
    if (buffer->buffer->n_datas > 0) {
      deliver(buffer->buffer->datas[0]);
    }
    pw_stream_queue_buffer(stream_, buffer);
  }
}

void PipeWireMicrophoneStream::deliver(const spa_data& data) {
  if (data.data == nullptr || data.chunk == nullptr) {
    return;
  }
  const std::uint32_t offset = std::min(data.chunk->offset, data.maxsize);
  const std::uint32_t size = std::min(data.chunk->size, data.maxsize - offset);
  std::span block(static_cast<std::uint8_t*>(data.data) + offset, size - size % format_.mBytesPerFrame);
  if (block.empty()) {
    return;
  }
  blocks_.fetch_add(1, std::memory_order_relaxed);
  gate_.deliver([&] {
    if (data.type != SPA_DATA_MemPtr) {
      copy_.assign(block.begin(), block.end());
      block = copy_;
    }
    callback_(0, block);
  });
}

// ---- What is told

void PipeWireMicrophoneStream::lookLater() {
  if (!std::exchange(looking_, true)) {
    (void)sources_->queue()->after(kLookInterval, [weak = weak_from_this()] {
      if (const auto self = weak.lock()) {
        self->look();
      }
    });
  }
}

void PipeWireMicrophoneStream::look() {
  sources_->use();
  sources_->awaitListing();
  std::string told;
  {
    const PipeWireConnection::Lock lock(sources_->connection());
    looking_ = false;
    if (!wanted_ || closed_) {
      return;
    }
    countLook();
    told = tidings();
    const bool silent = quietLooks_ > 0 && quietLooks_ % kSilentLooks == 0;
    if (state_ == PW_STREAM_STATE_ERROR || (silent && !interrupted_)) {
      drop();
    }
    sourcesChanged();
    lookLater();
  }
  if (!told.empty()) {
    ZEL_LOG_WARNING("Live: %s", told.c_str());
  }
}

void PipeWireMicrophoneStream::countLook() {
  const auto blocks = blocks_.load();
  if (std::exchange(seenBlocks_, blocks) != blocks) {
    quietLooks_ = 0;
    if (stream_ != nullptr) {
      source_ = sources_->linkedTo(pw_stream_get_node_id(stream_));
      default_ = sources_->defaultName();
    }
  } else if (sources_->isConnected()) {
    ++quietLooks_;
  }
  pausedLooks_ = isPausedFromOutside() ? pausedLooks_ + 1 : 0;
  if (pausedLooks_ == kPausedLooks) {
    setInterrupted(true);
  }
}

/// The microphone is there, whoever links streams is too and has changed nothing, and yet it stands still.
bool PipeWireMicrophoneStream::isPausedFromOutside() const {
  return state_ == PW_STREAM_STATE_PAUSED && !interrupted_ && sources_->isManaged() && !source_.empty() &&
         sources_->has(source_) && (!target_.uniqueID.empty() || sources_->defaultName() == default_);
}

void PipeWireMicrophoneStream::noticeResumption() {
  const PipeWireConnection::Lock lock(sources_->connection());
  if (state_ == PW_STREAM_STATE_STREAMING) {
    setInterrupted(false);
    if (!wanted_) {
      drop();
    }
  }
}

void PipeWireMicrophoneStream::setInterrupted(bool interrupted) {
  if (std::exchange(interrupted_, interrupted) != interrupted) {
    sources_->post(notification::AudioInterruption, kAudioInterruptionTypeKey, interrupted ? 1 : 0);
  }
}

PipeWireMicrophoneStream::Trouble PipeWireMicrophoneStream::trouble() const {
  if (!sources_->isConnected() || interrupted_) {
    return Trouble::None;  // Told elsewhere.
  }
  if (!target_.uniqueID.empty() && !sources_->has(target_.uniqueID)) {
    return Trouble::Gone;
  }
  if (sources_->empty()) {
    return Trouble::NoMicrophone;
  }
  if (!failure_.empty()) {
    return Trouble::Failing;
  }
  return quietLooks_ >= kSilentLooks ? Trouble::Silent : Trouble::None;
}

/// The line that is due, if one is.
std::string PipeWireMicrophoneStream::tidings() {
  const Trouble now = trouble();
  if (now == Trouble::None) {
    const bool over = quietLooks_ == 0 && std::exchange(told_, Trouble::None) != Trouble::None;
    return over ? name() + " delivers sound again" : std::string();
  }
  if (std::exchange(told_, now) == now) {
    return {};
  }
  switch (now) {
    case Trouble::Gone:
      return name() + " is not there; there is no sound from it until it is plugged in again";
    case Trouble::NoMicrophone:
      return "there is no microphone; there is no sound until one is plugged in";
    case Trouble::Failing: {
      const bool refused = failure_.find("ermi") != std::string::npos;
      return name() + (refused ? " may not be used: permission is refused" : " fails: " + failure_) +
             "; it is tried again";
    }
    default:
      return name() + " delivers nothing";
  }
}

std::string PipeWireMicrophoneStream::name() const {
  const auto name = !target_.uniqueID.empty() ? target_.localizedName
                    : !source_.empty()        ? sources_->localizedName(source_)
                                              : sources_->localizedName(sources_->defaultName());
  return name.empty() ? std::string("the microphone") : "the microphone \"" + name + "\"";
}

}  // namespace zellive
