#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "zellive/codec/ZelAudioEncoding.h"
#include "zellive/platform/Platform.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"

namespace zellive {

/// Turns PCM into raw AAC access units (ISO/IEC 14496-3), one for each 1024 frames, through the platform's converter.
///
/// A unit carries the time stamp of the encodeAudioData call that completed its own 1024 frames, also when the
/// converter looks ahead and gives it during a later call. What does not fill a unit waits for the next call and is
/// never flushed. Failures are logged and cost the 1024 frames concerned.
class ZelHardwareAudioEncoder final : public ZelAudioEncoding,
                                      public std::enable_shared_from_this<ZelHardwareAudioEncoder> {
 public:
  /// Null without a configuration. The converter is made by the first encodeAudioData.
  [[nodiscard]] static std::shared_ptr<ZelHardwareAudioEncoder> create(
      std::shared_ptr<ZelLiveAudioConfiguration> configuration,
      std::shared_ptr<const Platform> platform = defaultPlatform());
  ~ZelHardwareAudioEncoder() override;

  void encodeAudioData(std::span<const std::uint8_t> data, std::uint64_t timeStamp) override;
  /// Does nothing.
  void stopEncoder() override {}
  void setDelegate(std::weak_ptr<ZelAudioEncodingDelegate> delegate) override;

 private:
  ZelHardwareAudioEncoder(std::shared_ptr<ZelLiveAudioConfiguration> configuration,
                          std::shared_ptr<const Platform> platform);

  void createAudioConvert();
  void encodeBuffer(std::span<const std::uint8_t> chunk, std::uint64_t timeStamp);
  void deliver(std::uint64_t timeStamp, Data accessUnit);
  [[nodiscard]] const Data& audioInfo();

  std::shared_ptr<ZelLiveAudioConfiguration> configuration_;
  std::shared_ptr<const Platform> platform_;
  std::unique_ptr<AudioConverter> converter_;
  AudioConverter::OutputHandler output_;
  std::vector<std::uint8_t> leftBuf_;
  std::size_t leftLength_ = 0;
  Data audioInfo_;

  std::mutex mutex_;
  std::weak_ptr<ZelAudioEncodingDelegate> aacDelegate_;  // guarded by mutex_
};

}  // namespace zellive
