// Preloaded into a publishing program: notes when each picture is handed over, when it goes into the encoder and when
// it comes out, so that a receiver's times can be compared with these. The notes go into the file that ZELLIVE_HANDOVER
// names, as records of four 64-bit numbers.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "zellive/session/ZelLiveSession.h"

namespace {

constexpr std::size_t kMostRecords = 1 << 16;
/// Bytes at a packet's end by which it is known again in a message; the same in compare.py.
constexpr int kTail = 24;

enum Kind : std::uint64_t { Decoded = 1, Pushed = 2, Submitted = 3, Encoded = 4 };

struct Record {
  std::uint64_t kind;
  std::uint64_t time;  // Nanoseconds of the monotonic clock.
  std::uint64_t key;   // Where the picture lies in memory; for Encoded, the hash of the packet's tail.
  std::uint64_t pts;   // Of the encoder; 0 for the first two kinds.
};

std::uint64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

Record* openRecords() {
  const char* path = std::getenv("ZELLIVE_HANDOVER");
  const int file = path == nullptr ? -1 : open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) {
    return nullptr;
  }
  constexpr std::size_t size = kMostRecords * sizeof(Record);
  void* memory =
      ftruncate(file, size) == 0 ? mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0) : MAP_FAILED;
  close(file);
  return memory == MAP_FAILED ? nullptr : static_cast<Record*>(memory);
}

void note(Kind kind, std::uint64_t time, std::uint64_t key, std::int64_t pts) {
  static Record* const records = openRecords();
  static std::atomic<std::size_t> count{0};
  const std::size_t index = count++;
  if (records != nullptr && index < kMostRecords) {
    records[index] = {kind, time, key, static_cast<std::uint64_t>(pts)};
  }
}

std::uint64_t addressOf(const std::uint8_t* bytes) { return reinterpret_cast<std::uintptr_t>(bytes); }

/// FNV-1a.
std::uint64_t hashTail(const AVPacket& packet) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (int at = std::max(0, packet.size - kTail); at < packet.size; ++at) {
    hash = (hash ^ packet.data[at]) * 0x100000001B3;
  }
  return hash;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int avcodec_send_frame(AVCodecContext* context, const AVFrame* frame) {
  static const auto real = next<decltype(avcodec_send_frame)>("avcodec_send_frame");
  if (frame != nullptr && context->codec_type == AVMEDIA_TYPE_VIDEO) {
    note(Submitted, now(), addressOf(frame->data[0]), frame->pts);
  }
  return real(context, frame);
}

int avcodec_receive_packet(AVCodecContext* context, AVPacket* packet) {
  static const auto real = next<decltype(avcodec_receive_packet)>("avcodec_receive_packet");
  const int result = real(context, packet);
  if (result == 0 && context->codec_type == AVMEDIA_TYPE_VIDEO) {
    note(Encoded, now(), hashTail(*packet), packet->pts);
  }
  return result;
}

int avcodec_receive_frame(AVCodecContext* context, AVFrame* frame) {
  static const auto real = next<decltype(avcodec_receive_frame)>("avcodec_receive_frame");
  const int result = real(context, frame);
  if (result == 0 && context->codec_type == AVMEDIA_TYPE_VIDEO) {
    note(Decoded, now(), addressOf(frame->data[0]), 0);
  }
  return result;
}
}

namespace zellive {

void ZelLiveSession::pushVideo(std::shared_ptr<PixelBuffer> pixelBuffer) {
  using PushVideo = void(ZelLiveSession*, std::shared_ptr<PixelBuffer>);
  static const auto real = next<PushVideo>("_ZN7zellive14ZelLiveSession9pushVideoESt10shared_ptrINS_11PixelBufferEE");
  if (pixelBuffer) {
    note(Pushed, now(), addressOf(pixelBuffer->plane(0).base), 0);
  }
  real(this, std::move(pixelBuffer));
}

}  // namespace zellive
