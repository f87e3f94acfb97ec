#include "zellive/platform/linux/PipeWireCameraFeed.h"

#include <linux/dma-buf.h>
#include <spa/buffer/meta.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <utility>

namespace zellive {
namespace {

/// A stamp that is older than this, or of the future, is of another clock than the machine's.
constexpr auto kOldestPicture = std::chrono::nanoseconds(std::chrono::seconds(2));

std::chrono::nanoseconds monotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// What the camera has written into one of the buffer's memories.
std::span<const std::uint8_t> blockOf(const spa_data& data) {
  if (data.data == nullptr || data.chunk == nullptr || (data.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) != 0) {
    return {};
  }
  const std::size_t offset = std::min(data.chunk->offset, data.maxsize);
  const std::size_t size = std::min<std::size_t>(data.chunk->size, data.maxsize - offset);
  return {static_cast<const std::uint8_t*>(data.data) + offset, size};
}

/// Makes memory that devices write to fit to be read here, while it exists.
class DeviceMemoryAccess {
 public:
  explicit DeviceMemoryAccess(const spa_buffer& buffer) : buffer_(buffer) { synchronize(DMA_BUF_SYNC_START); }
  ~DeviceMemoryAccess() { synchronize(DMA_BUF_SYNC_END); }
  DeviceMemoryAccess(const DeviceMemoryAccess&) = delete;
  DeviceMemoryAccess& operator=(const DeviceMemoryAccess&) = delete;

 private:
  void synchronize(std::uint64_t step) const {
    for (std::uint32_t i = 0; i < buffer_.n_datas; ++i) {
      if (buffer_.datas[i].type == SPA_DATA_DmaBuf) {
        dma_buf_sync sync{DMA_BUF_SYNC_READ | step};
        (void)ioctl(static_cast<int>(buffer_.datas[i].fd), DMA_BUF_IOCTL_SYNC, &sync);
      }
    }
  }
  const spa_buffer& buffer_;
};

}  // namespace

const pw_stream_events PipeWireCameraFeed::kEvents = [] {
  pw_stream_events events{};
  events.version = PW_VERSION_STREAM_EVENTS;
  events.state_changed = [](void* self, pw_stream_state, pw_stream_state state, const char* error) {
    static_cast<PipeWireCameraFeed*>(self)->stateChanged(state, error);
  };
  events.param_changed = [](void* self, std::uint32_t id, const spa_pod* parameter) {
    if (id == SPA_PARAM_Format) {
      static_cast<PipeWireCameraFeed*>(self)->formatChanged(parameter);
    }
  };
  events.process = [](void* self) { static_cast<PipeWireCameraFeed*>(self)->process(); };
  return events;
}();

PipeWireCameraFeed::PipeWireCameraFeed(PipeWireConnection& connection, const Target& target,
                                       const CameraRequest& request, std::weak_ptr<CameraFeedSink> sink,
                                       std::shared_ptr<MediaClock> clock)
    : request_(request), sink_(std::move(sink)), clock_(std::move(clock)), thinner_(request.frameDuration) {
  stream_ = pw_stream_new(
      connection.core(), "zellive camera",
      pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture", PW_KEY_MEDIA_ROLE, "Camera",
                        PW_KEY_TARGET_OBJECT, target.serial.c_str(), PW_KEY_NODE_DONT_RECONNECT, "true", nullptr));
  if (stream_ == nullptr) {
    fail(std::strerror(errno));
    return;
  }
  pw_stream_add_listener(stream_, &hook_, &kEvents, this);
  const auto formats = StreamParameters::formats(target.formats, request);
  auto pods = formats.pods();
  const int status =
      pw_stream_connect(stream_, PW_DIRECTION_INPUT, PW_ID_ANY,
                        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS),
                        pods.data(), static_cast<std::uint32_t>(pods.size()));
  if (status < 0) {
    fail(std::strerror(-status));
  }
}

PipeWireCameraFeed::~PipeWireCameraFeed() {
  if (stream_ != nullptr) {
    spa_hook_remove(&hook_);
    pw_stream_destroy(stream_);
  }
}

void PipeWireCameraFeed::fail(std::string reason) {
  if (const auto sink = sink_.lock()) {
    sink->feedFails(std::move(reason));
  }
}

void PipeWireCameraFeed::stateChanged(pw_stream_state state, const char* error) {
  if (state == PW_STREAM_STATE_ERROR) {
    const std::string reason = error != nullptr ? error : "it gives no reason";
    const bool refused = reason.find(std::strerror(EACCES)) != std::string::npos ||
                         reason.find(std::strerror(EPERM)) != std::string::npos;
    fail(refused ? "permission is refused" : reason);
  }
}

void PipeWireCameraFeed::formatChanged(const spa_pod* parameter) {
  format_.reset();
  if (parameter == nullptr) {
    return;
  }
  format_ = agreedFormat(*parameter);
  if (!format_) {
    fail("it delivers a format that cannot be read");
    return;
  }
  const auto parameters = StreamParameters::buffers();
  auto pods = parameters.pods();
  pw_stream_update_params(stream_, pods.data(), static_cast<std::uint32_t>(pods.size()));
}

void PipeWireCameraFeed::process() {
  while (pw_buffer* const buffer = pw_stream_dequeue_buffer(stream_)) {
    deliver(*buffer->buffer);
    pw_stream_queue_buffer(stream_, buffer);
  }
}

void PipeWireCameraFeed::deliver(const spa_buffer& buffer) {
  const auto sink = sink_.lock();
  if (!sink || !format_) {
    return;
  }
  const auto time = timeOf(buffer);
  if (!thinner_.admits(time)) {
    return;
  }
  const DeviceMemoryAccess access(buffer);
  const auto picture = pictureIn(buffer);
  if (!picture) {
    return;
  }
  if (!pool_ || pool_->width() != picture->width || pool_->height() != picture->height) {
    pool_ = PixelBufferPool::create(request_.format, picture->width, picture->height);
  }
  auto converted = pool_ ? pool_->acquire() : nullptr;
  if (!converted) {
    return;
  }
  toBiPlanar(*picture, *converted);
  converted->setColorMatrix(format_->matrix);
  sink->feedDelivers({std::move(converted), MediaTime::make(time.count(), 1'000'000'000)});
}

std::optional<RawPicture> PipeWireCameraFeed::pictureIn(const spa_buffer& buffer) {
  std::array<std::span<const std::uint8_t>, 3> blocks;
  std::array<std::size_t, 3> strides{};
  const std::size_t count = std::min<std::size_t>(buffer.n_datas, blocks.size());
  for (std::size_t i = 0; i < count; ++i) {
    blocks[i] = blockOf(buffer.datas[i]);
    const auto stride = buffer.datas[i].chunk != nullptr ? buffer.datas[i].chunk->stride : 0;
    strides[i] = stride > 0 ? static_cast<std::size_t>(stride) : 0;
  }
  if (count == 0 || blocks[0].empty()) {
    return std::nullopt;
  }
  if (!format_->layout) {
    return decoder_.decode(blocks[0]);
  }
  RawPicture picture;
  picture.layout = *format_->layout;
  picture.width = format_->size.width;
  picture.height = format_->size.height;
  picture.fullRange = format_->fullRange;
  const bool found = count == 1 ? findPlanes(picture, blocks[0], strides[0])
                                : findPlanes(picture, std::span(blocks.data(), count), strides);
  return found ? std::optional(picture) : std::nullopt;
}

std::chrono::nanoseconds PipeWireCameraFeed::timeOf(const spa_buffer& buffer) const {
  const auto now = clock_->now();
  const auto* const header =
      static_cast<const spa_meta_header*>(spa_buffer_find_meta_data(&buffer, SPA_META_Header, sizeof(spa_meta_header)));
  if (header == nullptr || header->pts <= 0) {
    return now;
  }
  const auto age = monotonicNow() - std::chrono::nanoseconds(header->pts);
  return age.count() >= 0 && age <= kOldestPicture ? now - age : now;
}

}  // namespace zellive
