#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/zellive/ClipDevices.h"
#include "apps/zellive/CommandLine.h"
#include "apps/zellive/DeviceChoice.h"
#include "apps/zellive/LogCollector.h"
#include "apps/zellive/PreviewWindow.h"
#include "apps/zellive/Programme.h"
#include "zellive/platform/ImageView.h"

namespace zellive::tool {

/// A camera, a microphone, or both, which the session captures by itself.
class CapturedProgramme : public Programme {
 public:
  /// Finds the devices that the options name and opens the preview. Null with `error` set where that cannot be done.
  [[nodiscard]] static std::unique_ptr<CapturedProgramme> create(const PublishOptions& options,
                                                                 std::shared_ptr<const Platform> platform,
                                                                 std::shared_ptr<AppState> appState,
                                                                 std::shared_ptr<Output> output, std::string& error);

  [[nodiscard]] std::string name() const override;
  [[nodiscard]] bool usesHardware() const override { return usesHardware_; }
  /// A camera alone comes with silence, without which the stream's clock would stand still.
  [[nodiscard]] std::int64_t captureType() const override;
  [[nodiscard]] const std::shared_ptr<ZelLiveVideoConfiguration>& video() const override { return video_; }
  void attach(const std::shared_ptr<ZelLiveSession>& session) override;
  void begin(Duration now) override { begin_ = now; }
  [[nodiscard]] Duration nextStep(Duration now) const override;
  [[nodiscard]] bool step(Duration now) override;
  [[nodiscard]] std::string whatIsMissing() const override;

 private:
  CapturedProgramme(const PublishOptions& options, std::shared_ptr<const Platform> platform)
      : options_(options), platform_(std::move(platform)) {}
  [[nodiscard]] bool findDevices(std::string& error);
  [[nodiscard]] bool findCamera(const LogCollector& news, std::string& error);
  [[nodiscard]] bool findMicrophone(const LogCollector& news, std::string& error);
  [[nodiscard]] std::optional<std::size_t> choose(const std::vector<DeviceName>& devices, const std::string& wanted,
                                                  const std::string& kind, const LogCollector& news,
                                                  std::string& error);
  [[nodiscard]] bool openPreview(std::shared_ptr<AppState> appState, std::shared_ptr<Output> output,
                                 std::string& error);
  void showWatermark(ZelLiveVideoCapture& capture) const;

  const PublishOptions& options_;
  const std::shared_ptr<const Platform> platform_;
  const std::shared_ptr<ClipClock> clipClock_ = std::make_shared<ClipClock>();
  std::shared_ptr<CaptureDevice> camera_;
  std::string microphoneName_;
  bool usesHardware_ = false;
  std::shared_ptr<ZelLiveVideoConfiguration> video_;
  std::shared_ptr<PreviewWindow> preview_;
  std::shared_ptr<ImageView> watermark_;
  std::shared_ptr<ZelLiveSession> session_;
  Duration begin_{};
};

}  // namespace zellive::tool
