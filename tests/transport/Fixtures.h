#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "zellive/session/ZelFrame.h"
#include "zellive/session/ZelLiveStreamInfo.h"
#include "zellive/transport/ZelStreamRtmpSocket.h"

namespace zellive::test {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
using Frame = std::shared_ptr<const ZelFrame>;

inline Bytes join(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

/// Empty pieces are absent.
inline Data asData(const Bytes& bytes) { return bytes.empty() ? Data() : Data::copyOf(bytes); }

struct VideoParts {
  bool key = true;
  Bytes data = {0x65, 1};
  Bytes sps = {0x67, 0x64, 0x00, 0x1F};
  Bytes pps = {0x68, 0xEE};
};
inline Frame video(std::uint64_t timestamp, const VideoParts& parts = {}) {
  auto frame = std::make_shared<ZelLiveVideoFrame>();
  frame->timestamp = timestamp;
  frame->isKeyFrame = parts.key;
  frame->data = asData(parts.data);
  frame->sps = asData(parts.sps);
  frame->pps = asData(parts.pps);
  return frame;
}

inline Frame audio(std::uint64_t timestamp, const Bytes& data = {1, 2, 3, 4}, const Bytes& info = {0x11, 0x88}) {
  auto frame = std::make_shared<ZelLiveAudioFrame>();
  frame->timestamp = timestamp;
  frame->data = asData(data);
  frame->audioInfo = asData(info);
  return frame;
}

inline std::shared_ptr<ZelLiveStreamInfo> streamAt(const std::string& url) {
  auto info = std::make_shared<ZelLiveStreamInfo>();
  info->setUrl(url);
  return info;
}

/// What a publisher has told, a letter each, in order: statuses 1 to 5 as C (connecting), K (connected), S (stopped),
/// E (error), R (reconnecting); X for error 205, N for error 203; U for a URL that is asked for. Thread-safe.
class Story {
 public:
  void noteStatus(std::uint64_t status) { note(" CKSER"[status]); }
  void noteError(std::uint64_t code) { note(code == ZelStreamSocketErrorReconnectExhausted ? 'X' : 'N'); }
  void note(char letter) {
    const std::lock_guard lock(mutex_);
    letters_ += letter;
    changed_.notify_all();
  }
  [[nodiscard]] std::string letters() const {
    const std::lock_guard lock(mutex_);
    return letters_;
  }
  /// What has been told since the last call.
  std::string take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(letters_, {});
  }
  /// False when it is not told so often within a time that no fault takes.
  [[nodiscard]] bool waitFor(char letter, std::ptrdiff_t times = 1) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 30s, [&] { return std::ranges::count(letters_, letter) >= times; });
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string letters_;
};

/// The story of a publisher, or of a send buffer, with its numbers: those are for tests whose queues all run on one
/// thread.
struct Reports : Story, ZelStreamSocketDelegate, ZelStreamingBufferDelegate {
  using Trends = std::vector<ZelStreamingBufferState>;
  void socketStatus(ZelStreamRtmpSocket&, std::uint64_t status) override { noteStatus(status); }
  void socketDidErrorCode(ZelStreamRtmpSocket&, std::uint64_t code) override { noteError(code); }
  void socketRequestNewUrl(ZelStreamRtmpSocket&) override { note('U'); }
  void socketDebugInfo(ZelStreamRtmpSocket&, const ZelLiveDebug& info) override { statistics.push_back(info); }
  void socketBufferStatus(ZelStreamRtmpSocket&, ZelStreamingBufferState state) override { trends.push_back(state); }
  void socketBufferStatusBufferCount(ZelStreamRtmpSocket&, std::uint64_t count) override { counts.push_back(count); }
  void streamingBufferState(ZelStreamingBuffer&, ZelStreamingBufferState state) override { trends.push_back(state); }
  void streamingBufferCount(ZelStreamingBuffer&, std::uint64_t count) override { counts.push_back(count); }

  Trends trends;
  std::vector<std::uint64_t> counts;
  std::vector<ZelLiveDebug> statistics;
};

}  // namespace zellive::test
