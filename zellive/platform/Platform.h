#pragma once

#include <memory>

#include "zellive/platform/AudioConverter.h"
#include "zellive/platform/AudioInput.h"
#include "zellive/platform/CaptureSession.h"
#include "zellive/platform/Companion.h"
#include "zellive/platform/Device.h"
#include "zellive/platform/GraphicsContext.h"
#include "zellive/platform/MediaClock.h"
#include "zellive/platform/NameService.h"
#include "zellive/platform/NotificationCenter.h"
#include "zellive/platform/Queue.h"
#include "zellive/platform/Reachability.h"
#include "zellive/platform/VideoCompressionSession.h"
#include "zellive/platform/Window.h"

namespace zellive {

/// What the library needs of the machine, as one set. No member is null. An application or a test may copy
/// defaultPlatform()'s set, replace members (its own main queue, say) and hand the copy to the objects that it makes.
struct Platform {
  std::shared_ptr<QueueService> queues;
  std::shared_ptr<MediaClock> clock;
  std::shared_ptr<NotificationCenter> notifications;
  std::shared_ptr<Device> device;
  std::shared_ptr<AFNetworkReachabilityManager> reachability;
  std::shared_ptr<NameService> names;
  std::shared_ptr<VideoCompressionService> videoCompression;
  std::shared_ptr<AudioConverterService> audioConversion;
  std::shared_ptr<GraphicsService> graphics;
  std::shared_ptr<CameraService> cameras;
  std::shared_ptr<AudioInputService> audioInputs;
  std::shared_ptr<WindowService> windows;
  std::shared_ptr<QMZSdwan> companion;
};

/// The machine's real services, made on first use and kept to the end of the process. Thread-safe; never null.
[[nodiscard]] std::shared_ptr<const Platform> defaultPlatform();

}  // namespace zellive
