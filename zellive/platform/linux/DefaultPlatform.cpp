#include "zellive/platform/Platform.h"
#include "zellive/platform/VirtualMicrophones.h"
#include "zellive/platform/linux/AsioQueues.h"
#include "zellive/platform/linux/EglGraphics.h"
#include "zellive/platform/linux/FfmpegAudioConversion.h"
#include "zellive/platform/linux/FfmpegVideoCompression.h"
#include "zellive/platform/linux/LinuxCameras.h"
#include "zellive/platform/linux/LinuxDevice.h"
#include "zellive/platform/linux/MemoryMonitor.h"
#include "zellive/platform/linux/NetlinkReachability.h"
#include "zellive/platform/linux/PipeWireConnection.h"
#include "zellive/platform/linux/PipeWireMicrophones.h"
#include "zellive/platform/linux/SdlWindows.h"
#include "zellive/platform/linux/SystemClock.h"
#include "zellive/platform/linux/SystemNameService.h"

namespace zellive {
namespace {

std::shared_ptr<const Platform> makeDefaultPlatform() {
  auto set = std::make_shared<Platform>();
  set->queues = makeAsioQueues();
  set->clock = std::make_shared<SystemClock>();
  set->notifications = std::make_shared<NotificationCenter>();
  set->reachability = makeNetworkReachability(*set->queues, set->notifications);
  set->names = makeSystemNameService();
  set->videoCompression = makeFfmpegVideoCompression();
  set->audioConversion = makeFfmpegAudioConversion();
  set->graphics = makeEglGraphics();
  const auto pipeWire = std::make_shared<PipeWireConnection>(set->queues->makeSerialQueue("zellive.pipewire"));
  set->cameras = std::make_shared<LinuxCameras>(pipeWire, set->queues, set->clock);
  set->device = std::make_shared<LinuxDevice>(set->cameras);
  const auto microphones = std::make_shared<PipeWireMicrophones>(
      PipeWireSources::create(pipeWire, set->queues->makeSerialQueue("zellive.microphones"), set->notifications));
  set->audioInputs = std::make_shared<VirtualMicrophones>(microphones, set->queues, set->clock);
  for (const auto& microphone : {toneMicrophone(), speechMicrophone()}) {
    (void)set->audioInputs->addVirtualMicrophone(microphone);
  }
  set->windows = makeSdlWindows();
  set->companion = makeLoggedOutSdwan(set->queues->globalQueue());
  return set;
}

struct DefaultPlatform {
  std::shared_ptr<const Platform> set = makeDefaultPlatform();
  std::shared_ptr<MemoryMonitor> memory =
      MemoryMonitor::create(set->queues->mainQueue(), set->clock, set->notifications, {});
};

}  // namespace

std::shared_ptr<const Platform> defaultPlatform() {
  // Never destroyed: objects of the application may use it while the process exits.
  static const auto* const platform = new DefaultPlatform;
  return platform->set;
}

}  // namespace zellive
