#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "zellive/audio/ZelLiveProcessFilterProtocol.h"
#include "zellive/audio/ZelLiveRnnoiseFilter.h"

namespace zellive {

class ZelLiveAudioPool;

class ZelLiveAudioPoolDelegate {
 public:
  virtual ~ZelLiveAudioPoolDelegate() = default;
  /// 1024 bytes of processed PCM, valid for the call only. `timeStamp`: interpolated arrival of the last byte, in the
  /// unit that the pool was fed with. On the thread that feeds the pool, which must not be fed from inside the call.
  virtual void processedAudioData(ZelLiveAudioPool& pool, std::span<const std::uint8_t> audioData, double timeStamp) {
    (void)pool, (void)audioData, (void)timeStamp;
  }
};

/// Cuts a PCM stream that arrives in blocks of any size into blocks of 960 bytes (10 ms of 48 kHz mono, the noise
/// suppressor's frame), runs the filters on these, and hands the result on in blocks of 1024 bytes.
///
///     receiveAudioData → 960 bytes → filters → processdAudioData → 1024 bytes → delegate
///
/// PCM is signed 16-bit native-endian, one channel. At most 959 and 1023 bytes wait in the two stages; they stay there
/// for as long as nothing more arrives.
///
/// Threads: audio is fed by one thread at a time. Everything else may be called on any thread meanwhile and takes
/// effect with the next call that feeds audio. Feeding neither allocates nor fails.
class ZelLiveAudioPool : public std::enable_shared_from_this<ZelLiveAudioPool> {
 public:
  using Filters = std::vector<std::shared_ptr<ZelLiveProcessFilterProtocol>>;

  [[nodiscard]] static std::shared_ptr<ZelLiveAudioPool> create();

  /// Any number of bytes. `timeStamp`: time at the end of `data`, usually in milliseconds; the stamps handed on lie
  /// between those of two calls in proportion to the bytes used.
  void receiveAudioData(std::span<const std::uint8_t> data, double timeStamp);
  /// The second stage: PCM that needs no filter, any number of bytes.
  void processdAudioData(std::span<const std::uint8_t> data, double timeStamp);

  /// 1 to 3 switch noise suppression on, with at most 20, 40 or 60 dB of attenuation; other values are ignored, so that
  /// it stays on once it is.
  void setDenoiseLevel(std::int64_t level);
  /// 0 until set.
  [[nodiscard]] std::int64_t denoiseLevel() const;

  /// Run in order on each block of 960 bytes.
  [[nodiscard]] Filters filters() const;
  void setFilters(Filters filters);
  /// The suppressor, made on first use; not among the filters before a level is set.
  [[nodiscard]] std::shared_ptr<ZelLiveRnnoiseFilter> rnnoise();
  /// Null makes a new one on next use. Does not touch the filters.
  void setRnnoise(std::shared_ptr<ZelLiveRnnoiseFilter> rnnoise);

  [[nodiscard]] std::shared_ptr<ZelLiveAudioPoolDelegate> delegate() const;
  void setDelegate(std::weak_ptr<ZelLiveAudioPoolDelegate> delegate);

 private:
  ZelLiveAudioPool() = default;

  // Touched by the feeding thread alone.
  std::array<std::uint8_t, 960> recvBuf_{};
  std::array<std::uint8_t, 1024> sendBuf_{};
  std::int64_t recvLeftLength_ = 0;
  std::int64_t sendLeftLength_ = 0;
  double lastRecvTimeStamp_ = 0;
  double lastSendTimeStamp_ = 0;

  mutable std::mutex mutex_;
  std::weak_ptr<ZelLiveAudioPoolDelegate> delegate_;
  /// Replaced, never changed: the feeding thread may be walking the one it took.
  std::shared_ptr<const Filters> filters_ = std::make_shared<const Filters>();
  std::shared_ptr<ZelLiveRnnoiseFilter> rnnoise_;
};

}  // namespace zellive
