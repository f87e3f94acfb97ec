#include "tests/support/PipeWireDaemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace zellive::test {
namespace {

using namespace std::chrono_literals;

constexpr std::array programs{"/usr/bin/pipewire", "/usr/bin/wireplumber", "/usr/bin/gst-launch-1.0"};

constexpr const char* daemonConfiguration = R"(
context.properties = { core.daemon = true core.name = pipewire-0 support.dbus = false mem.allow-mlock = false
  log.level = 1 default.clock.rate = 48000 default.clock.quantum = 1024 settings.check-quantum = false }
context.spa-libs = { audio.convert.* = audioconvert/libspa-audioconvert audio.adapt = audioconvert/libspa-audioconvert
  audiotestsrc = audiotestsrc/libspa-audiotestsrc support.* = support/libspa-support }
context.modules = [
  { name = libpipewire-module-protocol-native } { name = libpipewire-module-metadata }
  { name = libpipewire-module-spa-node-factory } { name = libpipewire-module-client-node }
  { name = libpipewire-module-client-device } { name = libpipewire-module-access }
  { name = libpipewire-module-adapter } { name = libpipewire-module-link-factory }
  { name = libpipewire-module-session-manager } ]
context.objects = [
  { factory = spa-node-factory args = { factory.name = support.node.driver node.name = Dummy-Driver
      node.group = pipewire.dummy priority.driver = 20000 } }
  { factory = adapter args = { factory.name = audiotestsrc node.name = zellive-mic
      node.description = "virtual microphone" media.class = Audio/Source node.param.Props = { live = true } } } ]
)";

// Nothing that needs a desktop: only what names the default devices and links streams to them.
constexpr const char* managerConfiguration = R"(
context.properties = { log.level = 2 wireplumber.script-engine = lua-scripting wireplumber.export-core = false }
context.spa-libs = { audio.convert.* = audioconvert/libspa-audioconvert support.* = support/libspa-support }
context.modules = [
  { name = libpipewire-module-protocol-native } { name = libpipewire-module-client-node }
  { name = libpipewire-module-client-device } { name = libpipewire-module-adapter }
  { name = libpipewire-module-metadata } { name = libpipewire-module-session-manager } ]
wireplumber.components = [
  { name = libwireplumber-module-lua-scripting, type = module }
  { name = libwireplumber-module-metadata, type = module }
  { name = libwireplumber-module-default-nodes, type = module }
  { name = libwireplumber-module-default-nodes-api, type = module }
  { name = libwireplumber-module-mixer-api, type = module }
  { name = libwireplumber-module-si-node, type = module }
  { name = libwireplumber-module-si-audio-adapter, type = module }
  { name = libwireplumber-module-si-audio-endpoint, type = module }
  { name = libwireplumber-module-si-standard-link, type = module }
  { name = access/access-default.lua, type = script/lua }
  { name = create-item.lua, type = script/lua }
  { name = policy-node.lua, type = script/lua } ]
)";

}  // namespace

bool PipeWireDaemon::available() {
  for (const char* program : programs) {
    if (access(program, X_OK) != 0) {
      return false;
    }
  }
  return true;
}

PipeWireDaemon::PipeWireDaemon() {
  const std::string& directory = directory_.path();
  std::ofstream(directory + "/daemon.conf") << daemonConfiguration;
  std::filesystem::create_directory(directory + "/manager");
  std::ofstream(directory + "/manager/wireplumber.conf") << managerConfiguration;
  setenv("XDG_RUNTIME_DIR", directory.c_str(), 1);
  for (const char* other : {"PIPEWIRE_REMOTE", "PIPEWIRE_RUNTIME_DIR", "DBUS_SESSION_BUS_ADDRESS"}) {
    unsetenv(other);
  }
  start();
}

PipeWireDaemon::~PipeWireDaemon() { kill(); }

void PipeWireDaemon::start() {
  const std::string& directory = directory_.path();
  daemon_ = std::make_unique<Process>(std::vector<std::string>{programs[0], "-c", directory + "/daemon.conf"});
  if (!waitUntil([&] { return daemon_->waitFor(0ms) || answers(); }, 20s) || daemon_->waitFor(0ms)) {
    throw std::runtime_error("PipeWire does not answer: " + log());
  }
  manager_ = std::make_unique<Process>(std::vector<std::string>{
      "env", "XDG_STATE_HOME=" + directory, "WIREPLUMBER_CONFIG_DIR=" + directory + "/manager", programs[1]});
}

void PipeWireDaemon::kill() {
  for (Process* process : {manager_.get(), daemon_.get()}) {
    if (process != nullptr) {
      process->signal(SIGKILL);
      (void)process->waitFor(10s);
    }
  }
}

std::unique_ptr<Process> PipeWireDaemon::plugIn(const Camera& camera) {
  return std::make_unique<Process>(std::vector<std::string>{
      programs[2], "videotestsrc", "is-live=true", "pattern=" + camera.pattern, "!",
      "video/x-raw,format=" + camera.format + ",width=" + std::to_string(camera.width) +
          ",height=" + std::to_string(camera.height) + ",framerate=" + std::to_string(camera.frameRate) + "/1",
      "!", "pipewiresink", "mode=provide",
      "stream-properties=p,media.class=Video/Source,media.role=Camera,node.name=" + camera.name +
          ",node.description=" + camera.name + (camera.properties.empty() ? "" : ",") + camera.properties});
}

std::string PipeWireDaemon::log() const {
  return (daemon_ ? daemon_->errors() : "") + (manager_ ? manager_->errors() : "");
}

bool PipeWireDaemon::answers() const {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = directory_.path() + "/pipewire-0";
  path.copy(static_cast<char*>(address.sun_path), sizeof address.sun_path - 1);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected =
      descriptor >= 0 && connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(descriptor);
  return connected;
}

}  // namespace zellive::test
