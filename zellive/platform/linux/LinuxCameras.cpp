#include "zellive/platform/linux/LinuxCameras.h"

#include <pipewire/pipewire.h>

#include <algorithm>
#include <utility>

#include "zellive/platform/TestCardCamera.h"
#include "zellive/platform/linux/CameraSession.h"
#include "zellive/platform/linux/VirtualCameraDevice.h"

namespace zellive {
namespace {

/// For a daemon that is there to list its cameras; it takes milliseconds where nothing is wrong.
constexpr auto kListingLimit = std::chrono::seconds(2);

}  // namespace

/// Every camera of PipeWire's that there has been.
class LinuxCameras::Registry : public PipeWireConnection::User {
 public:
  Registry(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<MediaClock> clock)
      : connection_(std::move(connection)), clock_(std::move(clock)) {
    connection_->add(*this);
  }
  ~Registry() override {
    const PipeWireConnection::Lock lock(*connection_);
    Registry::connectionLost();
    connection_->remove(*this);
  }
  Registry(const Registry&) = delete;
  Registry& operator=(const Registry&) = delete;

  void connectionLost() override {
    for (const auto& camera : all()) {
      if (camera->isConnected()) {
        camera->vanish();
      }
    }
  }

  void objectAppeared(const PipeWireObject& object) override {
    if (object.type != PW_TYPE_INTERFACE_Node || object.property(PW_KEY_MEDIA_CLASS) != "Video/Source") {
      return;
    }
    std::string called = object.property(PW_KEY_NODE_NAME);
    if (called.empty()) {
      called = object.property(PW_KEY_OBJECT_PATH);
    }
    if (called.empty()) {
      called = "camera";
    }
    std::string name = called;
    auto camera = find(name);
    for (int twin = 2; camera && camera->isConnected(); ++twin) {  // One of several that are called the same.
      name = called + "-" + std::to_string(twin);
      camera = find(name);
    }
    if (!camera) {
      camera = std::make_shared<PipeWireCamera>(connection_, clock_, name);
      const std::lock_guard lock(mutex_);
      cameras_.push_back(camera);
    }
    camera->appear(object);
  }

  void objectVanished(std::uint32_t id) override {
    for (const auto& camera : all()) {
      if (camera->isConnected() && camera->nodeId() == id) {
        camera->vanish();
      }
    }
  }

  [[nodiscard]] std::vector<std::shared_ptr<PipeWireCamera>> all() const {
    const std::lock_guard lock(mutex_);
    return cameras_;
  }

 private:
  [[nodiscard]] std::shared_ptr<PipeWireCamera> find(const std::string& name) const {
    const std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(cameras_.begin(), cameras_.end(), [&](const auto& camera) { return camera->uniqueID() == name; });
    return found == cameras_.end() ? nullptr : *found;
  }

  const std::shared_ptr<PipeWireConnection> connection_;
  const std::shared_ptr<MediaClock> clock_;
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<PipeWireCamera>> cameras_;
};

LinuxCameras::LinuxCameras(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<QueueService> queues,
                           std::shared_ptr<MediaClock> clock)
    : connection_(std::move(connection)), queues_(std::move(queues)), clock_(std::move(clock)) {
  virtual_.push_back(std::make_shared<VirtualCameraDevice>(testCardCamera(), queues_, clock_));
}

LinuxCameras::~LinuxCameras() = default;

LinuxCameras::Cameras LinuxCameras::connected() const {
  std::shared_ptr<Registry> registry;
  {
    const std::lock_guard lock(mutex_);
    if (!registry_) {
      registry_ = std::make_shared<Registry>(connection_, clock_);
    }
    registry = registry_;
  }
  (void)connection_->waitUntilListed(kListingLimit);
  std::vector<std::shared_ptr<PipeWireCamera>> real;
  for (auto& camera : registry->all()) {
    if (camera->isConnected()) {
      real.push_back(std::move(camera));
    }
  }
  std::stable_sort(real.begin(), real.end(),
                   [](const auto& left, const auto& right) { return left->priority() > right->priority(); });
  const std::lock_guard lock(mutex_);
  Cameras cameras(real.begin(), real.end());
  cameras.insert(cameras.end(), virtual_.begin(), virtual_.end());
  place(cameras);
  return cameras;
}

void LinuxCameras::place(const Cameras& cameras) const {
  std::vector<CameraPlace> places;
  for (const auto& camera : cameras) {
    places.push_back({camera->statedPosition(), !camera->isVirtual()});
  }
  for (const auto& [position, id] : named_) {
    const auto named = std::find_if(cameras.begin(), cameras.end(),
                                    [&id = id](const auto& camera) { return camera->uniqueID() == id; });
    if (named == cameras.end()) {
      continue;
    }
    for (auto& other : places) {
      other.position = other.position == position ? CaptureDevicePositionUnspecified : other.position;
    }
    places[static_cast<std::size_t>(named - cameras.begin())].position = position;
  }
  assignPlaces(places);
  for (std::size_t i = 0; i < cameras.size(); ++i) {
    cameras[i]->setPosition(places[i].position);
  }
}

bool LinuxCameras::setDeviceAtPosition(CaptureDevicePosition position, std::string_view name) {
  const auto cameras = connected();
  const auto found = std::find_if(cameras.begin(), cameras.end(), [&](const auto& camera) {
    return camera->uniqueID() == name || camera->localizedName() == name;
  });
  if (found == cameras.end()) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  std::erase_if(named_, [&](const auto& entry) { return entry.second == (*found)->uniqueID(); });
  named_[position] = (*found)->uniqueID();
  place(cameras);
  return true;
}

std::shared_ptr<CaptureSession> LinuxCameras::makeSession() { return CameraSession::create(*queues_, clock_); }

bool LinuxCameras::addVirtualCamera(const VirtualCamera& camera) {
  const std::lock_guard lock(mutex_);
  const bool known = std::any_of(virtual_.begin(), virtual_.end(),
                                 [&](const auto& other) { return other->uniqueID() == camera.uniqueID; });
  if (known || camera.uniqueID.empty() || camera.formats.empty() || camera.pixelFormats.empty() ||
      !camera.makePictures) {
    return false;
  }
  virtual_.push_back(std::make_shared<VirtualCameraDevice>(camera, queues_, clock_));
  return true;
}

std::vector<std::shared_ptr<CaptureDevice>> LinuxCameras::devices() const {
  auto cameras = connected();
  return {cameras.begin(), cameras.end()};
}

}  // namespace zellive
