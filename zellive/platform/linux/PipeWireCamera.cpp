#include "zellive/platform/linux/PipeWireCamera.h"

#include <pipewire/pipewire.h>
#include <spa/param/param.h>
#include <spa/param/props.h>
#include <spa/pod/builder.h>
#include <spa/pod/iter.h>
#include <spa/pod/parser.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>
#include <utility>

#include "zellive/platform/linux/PipeWireCameraFeed.h"
#include "zellive/platform/linux/PipeWireFormats.h"

namespace zellive {
namespace {

// The kernel's numbers of two controls, under which its cameras' properties are found.
constexpr std::uint32_t kFlashMode = 0x009c0901;
constexpr std::uint32_t kZoom = 0x009a090d;
constexpr int kFlashOff = 0;
constexpr int kFlashTorch = 2;

}  // namespace

/// The daemon's node, bound: it tells what it is and what it can do.
class PipeWireCamera::Node {
 public:
  Node(PipeWireCamera& owner, pw_registry* registry, const PipeWireObject& object) : owner_(owner) {
    node_ = static_cast<pw_node*>(pw_registry_bind(registry, object.id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, 0));
    if (node_ != nullptr) {
      pw_node_add_listener(node_, &hook_, &kEvents, this);
      std::array<std::uint32_t, 2> wanted{SPA_PARAM_EnumFormat, SPA_PARAM_PropInfo};
      pw_node_subscribe_params(node_, wanted.data(), static_cast<std::uint32_t>(wanted.size()));
      pw_proxy_add_listener(proxy(), &proxyHook_, &kProxyEvents, this);
      pw_proxy_sync(proxy(), 0);
    }
  }
  ~Node() {
    if (node_ != nullptr) {
      spa_hook_remove(&proxyHook_);
      spa_hook_remove(&hook_);
      pw_proxy_destroy(proxy());
    }
  }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  void set(std::uint32_t property, int value) {
    if (node_ == nullptr) {
      return;
    }
    std::array<std::byte, 128> memory{};
    spa_pod_builder builder{};
    spa_pod_builder_init(&builder, memory.data(), static_cast<std::uint32_t>(memory.size()));
    spa_pod_frame frame{};
    spa_pod_builder_push_object(&builder, &frame, SPA_TYPE_OBJECT_Props, SPA_PARAM_Props);
    spa_pod_builder_prop(&builder, property, 0);
    spa_pod_builder_int(&builder, value);
    pw_node_set_param(node_, SPA_PARAM_Props, 0, static_cast<const spa_pod*>(spa_pod_builder_pop(&builder, &frame)));
  }

 private:
  [[nodiscard]] pw_proxy* proxy() const { return reinterpret_cast<pw_proxy*>(node_); }

  static const pw_node_events kEvents;
  static const pw_proxy_events kProxyEvents;
  PipeWireCamera& owner_;
  pw_node* node_ = nullptr;
  spa_hook hook_{};
  spa_hook proxyHook_{};
};

const pw_proxy_events PipeWireCamera::Node::kProxyEvents = [] {
  pw_proxy_events events{};
  events.version = PW_VERSION_PROXY_EVENTS;
  // Not before it has answered: whoever opens it anew has its formats to choose from.
  events.done = [](void* self, int /*round*/) { static_cast<Node*>(self)->owner_.tellWatchers(); };
  return events;
}();

const pw_node_events PipeWireCamera::Node::kEvents = [] {
  pw_node_events events{};
  events.version = PW_VERSION_NODE_EVENTS;
  events.info = [](void* self, const pw_node_info* info) {
    if ((info->change_mask & PW_NODE_CHANGE_MASK_PROPS) != 0) {
      static_cast<Node*>(self)->owner_.takeInformation(propertiesOf(info->props));
    }
  };
  events.param = [](void* self, int /*round*/, std::uint32_t id, std::uint32_t index, std::uint32_t /*next*/,
                    const spa_pod* parameter) {
    PipeWireCamera& camera = static_cast<Node*>(self)->owner_;
    if (parameter != nullptr && id == SPA_PARAM_EnumFormat) {
      camera.takeFormat(index == 0, *parameter);
    } else if (parameter != nullptr && id == SPA_PARAM_PropInfo) {
      camera.takeControl(*parameter);
    }
  };
  return events;
}();

/// What a session holds: the stream, which goes earlier where the daemon does.
class PipeWireCamera::Feed : public CameraFeed {
 public:
  explicit Feed(std::shared_ptr<PipeWireCamera> camera) : camera_(std::move(camera)) {}
  ~Feed() override {
    const PipeWireConnection::Lock lock(*camera_->connection_);
    std::erase(camera_->feeds_, this);
    stream.reset();
  }
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;

  std::unique_ptr<PipeWireCameraFeed> stream;

 private:
  const std::shared_ptr<PipeWireCamera> camera_;
};

PipeWireCamera::PipeWireCamera(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<MediaClock> clock,
                               std::string uniqueID)
    : connection_(std::move(connection)), clock_(std::move(clock)), uniqueID_(std::move(uniqueID)) {}

PipeWireCamera::~PipeWireCamera() = default;

// ---- What it is

std::string PipeWireCamera::localizedName() const {
  const std::lock_guard lock(mutex_);
  for (const char* key : {PW_KEY_NODE_DESCRIPTION, PW_KEY_NODE_NICK}) {
    const auto found = properties_.find(key);
    if (found != properties_.end() && !found->second.empty()) {
      return found->second;
    }
  }
  return uniqueID_;
}

bool PipeWireCamera::isConnected() const {
  const std::lock_guard lock(mutex_);
  return connected_;
}

std::vector<CaptureDeviceFormat> PipeWireCamera::formats() const {
  const std::lock_guard lock(mutex_);
  return formats_;
}

std::vector<PixelFormat> PipeWireCamera::pixelFormats() const {
  // Compressed pictures alone are of full range; where there are others, those are the better choice.
  const std::lock_guard lock(mutex_);
  const bool compressedOnly =
      !formats_.empty() &&
      std::all_of(formats_.begin(), formats_.end(), [](const auto& format) { return format.encoding == "MJPEG"; });
  return compressedOnly ? std::vector{PixelFormat::BiPlanarFullRange, PixelFormat::BiPlanarVideoRange}
                        : std::vector{PixelFormat::BiPlanarVideoRange};
}

CaptureDevicePosition PipeWireCamera::statedPosition() const {
  const std::lock_guard lock(mutex_);
  const auto found = properties_.find("api.libcamera.location");
  const std::string_view location = found == properties_.end() ? std::string_view() : found->second;
  return location == "front"  ? CaptureDevicePositionFront
         : location == "back" ? CaptureDevicePositionBack
                              : CaptureDevicePositionUnspecified;
}

int PipeWireCamera::priority() const {
  const std::lock_guard lock(mutex_);
  const auto found = properties_.find(PW_KEY_PRIORITY_SESSION);
  int priority = 0;
  if (found != properties_.end()) {
    (void)std::from_chars(found->second.data(), found->second.data() + found->second.size(), priority);
  }
  return priority;
}

// ---- Coming and going

void PipeWireCamera::appear(const PipeWireObject& object) {
  nodeId_ = object.id;
  {
    const std::lock_guard lock(mutex_);
    connected_ = true;
    serial_ = object.property(PW_KEY_OBJECT_SERIAL);
    properties_ = object.properties;
    formats_.clear();
    torch_.reset();
    zoom_.reset();
    torchMode_ = 0;
  }
  node_ = std::make_unique<Node>(*this, connection_->registry(), object);
}

void PipeWireCamera::vanish() {
  for (Feed* feed : feeds_) {
    feed->stream.reset();
  }
  node_.reset();
  {
    const std::lock_guard lock(mutex_);
    connected_ = false;
  }
  tellWatchers();
}

void PipeWireCamera::takeInformation(const PipeWireProperties& properties) {
  const std::lock_guard lock(mutex_);
  for (const auto& [key, value] : properties) {
    properties_.insert_or_assign(key, value);
  }
}

void PipeWireCamera::takeFormat(bool first, const spa_pod& parameter) {
  const auto offered = formatsOffered(parameter);
  const std::lock_guard lock(mutex_);
  if (first) {
    formats_.clear();
  }
  formats_.insert(formats_.end(), offered.begin(), offered.end());
}

std::unique_ptr<CameraFeed> PipeWireCamera::open(const CameraRequest& request, std::weak_ptr<CameraFeedSink> sink) {
  auto feed = std::make_unique<Feed>(shared_from_this());
  const PipeWireConnection::Lock lock(*connection_);
  if (connection_->core() == nullptr || !node_) {
    return nullptr;
  }
  PipeWireCameraFeed::Target target;
  {
    const std::lock_guard own(mutex_);
    target = {serial_, formats_};
  }
  feed->stream = std::make_unique<PipeWireCameraFeed>(*connection_, target, request, std::move(sink), clock_);
  feeds_.push_back(feed.get());
  return feed;
}

// ---- Controls

void PipeWireCamera::takeControl(const spa_pod& parameter) {
  const spa_pod_prop* const id = spa_pod_find_prop(&parameter, nullptr, SPA_PROP_INFO_id);
  const spa_pod_prop* const type = spa_pod_find_prop(&parameter, nullptr, SPA_PROP_INFO_type);
  std::uint32_t number = 0;
  if (id == nullptr || type == nullptr || spa_pod_get_id(&id->value, &number) < 0 || number < SPA_PROP_START_CUSTOM) {
    return;
  }
  std::uint32_t count = 0;
  std::uint32_t choice = SPA_CHOICE_None;
  const spa_pod* const pod = spa_pod_get_values(&type->value, &count, &choice);
  if (pod->type != SPA_TYPE_Int || pod->size != sizeof(int) || count < 2) {
    return;
  }
  std::vector<int> values(count);
  std::memcpy(values.data(), pod + 1, count * sizeof(int));
  // After the default come a range's ends, or all of an enumeration.
  const auto end =
      choice == SPA_CHOICE_Enum ? values.end() : values.begin() + std::min<int>(3, static_cast<int>(count));
  const auto [least, greatest] = std::minmax_element(values.begin() + 1, end);
  const Control control{number, *least, *greatest};
  const std::lock_guard lock(mutex_);
  if (number - SPA_PROP_START_CUSTOM == kFlashMode && control.greatest >= kFlashTorch) {
    torch_ = control;
  } else if (number - SPA_PROP_START_CUSTOM == kZoom && control.greatest > control.least) {
    zoom_ = control;
  }
}

void PipeWireCamera::set(const Control& control, int value) {
  const PipeWireConnection::Lock lock(*connection_);
  if (node_) {
    node_->set(control.id, std::clamp(value, control.least, control.greatest));
  }
}

bool PipeWireCamera::hasTorch() const {
  const std::lock_guard lock(mutex_);
  return torch_.has_value();
}

int PipeWireCamera::torchMode() const {
  const std::lock_guard lock(mutex_);
  return torchMode_;
}

void PipeWireCamera::setTorchMode(int mode) {
  std::optional<Control> control;
  {
    const std::lock_guard lock(mutex_);
    control = torch_;
    torchMode_ = control && mode != 0 ? 1 : 0;
  }
  if (control) {
    set(*control, mode != 0 ? kFlashTorch : kFlashOff);
  }
}

void PipeWireCamera::setVideoZoomFactor(double factor) {
  std::optional<Control> control;
  {
    const std::lock_guard lock(mutex_);
    control = zoom_;
  }
  if (control && std::isfinite(factor) && factor >= 1) {
    // In units of the camera's own, whose least stands for the whole picture.
    const double value = control->least > 0 ? control->least * factor : control->least + factor - 1;
    set(*control, static_cast<int>(std::lround(std::min<double>(value, control->greatest))));
  }
}

}  // namespace zellive
