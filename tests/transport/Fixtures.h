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

using Bytes = std::vector<std::uint8_t>;

inline Bytes join(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

struct VideoParts {
  bool key = true;
  Bytes data = {0x65, 1};
  Bytes sps = {0x67, 0x64, 0x00, 0x1F};  ///< Empty: absent, as is the PPS.
  Bytes pps = {0x68, 0xEE};
};

inline Data asData(const Bytes& bytes) { return bytes.empty() ? Data() : Data::copyOf(bytes); }

inline std::shared_ptr<const ZelFrame> video(std::uint64_t timestamp, const VideoParts& parts = {}) {
  auto frame = std::make_shared<ZelLiveVideoFrame>();
  frame->timestamp = timestamp;
  frame->isKeyFrame = parts.key;
  frame->data = asData(parts.data);
  frame->sps = asData(parts.sps);
  frame->pps = asData(parts.pps);
  return frame;
}

inline std::shared_ptr<const ZelFrame> audio(std::uint64_t timestamp, const Bytes& data = {1, 2, 3, 4},
                                             const Bytes& info = {0x11, 0x88}) {
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

/// Writes down what a publisher tells ("status 2", "error 205", "url"), or a send buffer. Waiting for it needs no lock
/// of the test's own; reading the lists does, unless all queues run on the test's thread.
struct Reports : ZelStreamSocketDelegate, ZelStreamingBufferDelegate {
  void socketStatus(ZelStreamRtmpSocket&, std::uint64_t status) override { note("status " + std::to_string(status)); }
  void socketDidErrorCode(ZelStreamRtmpSocket&, std::uint64_t code) override { note("error " + std::to_string(code)); }
  void socketRequestNewUrl(ZelStreamRtmpSocket&) override { note("url"); }
  void socketDebugInfo(ZelStreamRtmpSocket&, const ZelLiveDebug& info) override { statistics.push_back(info); }
  void socketBufferStatus(ZelStreamRtmpSocket&, ZelStreamingBufferState state) override { trends.push_back(state); }
  void socketBufferStatusBufferCount(ZelStreamRtmpSocket&, std::uint64_t count) override { counts.push_back(count); }
  void streamingBufferState(ZelStreamingBuffer&, ZelStreamingBufferState state) override { trends.push_back(state); }
  void streamingBufferCount(ZelStreamingBuffer&, std::uint64_t count) override { counts.push_back(count); }

  void note(const std::string& event) {
    const std::lock_guard lock(mutex);
    events.push_back(event);
    changed.notify_all();
  }
  bool waitFor(const std::string& event, std::ptrdiff_t times = 1) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(20), [&] { return std::ranges::count(events, event) >= times; });
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> events;
  std::vector<ZelStreamingBufferState> trends;
  std::vector<std::uint64_t> counts;
  std::vector<ZelLiveDebug> statistics;
};

}  // namespace zellive::test
