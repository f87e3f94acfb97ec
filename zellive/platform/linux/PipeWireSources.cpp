#include "zellive/platform/linux/PipeWireSources.h"

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/audio/raw.h>
#include <spa/param/format.h>
#include <spa/pod/iter.h>

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>
#include <utility>

namespace zellive {
namespace {

using namespace std::chrono_literals;

/// For the daemon's list, on a machine under load.
constexpr auto kListingTime = 5s;

enum RouteChangeReason : std::int64_t { NewDevice = 1, OldDevice = 2, Override = 4, NoRoute = 7 };

bool isMicrophone(const PipeWireObject& object) {
  const auto mediaClass = object.property(PW_KEY_MEDIA_CLASS);
  return object.type == PW_TYPE_INTERFACE_Node &&
         (mediaClass.starts_with("Audio/Source") || mediaClass == "Audio/Duplex");
}

std::uint32_t number(const std::string& text) {
  std::uint32_t value = PW_ID_ANY;
  (void)std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

/// Of a choice, the one that the node prefers.
std::uint32_t preferred(const spa_pod* format, std::uint32_t key) {
  const spa_pod_prop* const property = spa_pod_find_prop(format, nullptr, key);
  if (property == nullptr) {
    return 0;
  }
  std::uint32_t count = 0;
  std::uint32_t choice = 0;
  const spa_pod* const values = spa_pod_get_values(&property->value, &count, &choice);
  std::int32_t value = 0;
  return count > 0 && spa_pod_get_int(values, &value) >= 0 && value > 0 ? static_cast<std::uint32_t>(value) : 0;
}

}  // namespace

/// A microphone, and what it says of itself.
class PipeWireSources::Node {
 public:
  Node(pw_registry* registry, const PipeWireObject& object)
      : proxy_(static_cast<pw_node*>(pw_registry_bind(registry, object.id, object.type.c_str(), PW_VERSION_NODE, 0))) {
    learn(object.properties);
    if (proxy_ != nullptr) {
      pw_node_add_listener(proxy_, &hook_, &kEvents, this);
      // At once, so that whoever waits for the list gets the answer with it.
      pw_node_enum_params(proxy_, 0, SPA_PARAM_EnumFormat, 0, 1, nullptr);
    }
  }
  ~Node() {
    if (proxy_ != nullptr) {
      spa_hook_remove(&hook_);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(proxy_));
    }
  }
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  AudioInputDescription description;

 private:
  void learn(const PipeWireProperties& properties) {
    const auto value = [&](std::string_view key) {
      const auto found = properties.find(key);
      return found == properties.end() ? std::string() : found->second;
    };
    const auto learnName = [&](std::string& name, std::string_view key) {
      if (auto said = value(key); !said.empty()) {
        name = std::move(said);
      }
    };
    learnName(description.uniqueID, PW_KEY_NODE_NAME);
    if (description.localizedName.empty()) {
      description.localizedName = description.uniqueID;
    }
    learnName(description.localizedName, PW_KEY_NODE_NICK);
    learnName(description.localizedName, PW_KEY_NODE_DESCRIPTION);
    // Behind a real one stands a device.
    description.isVirtual =
        (value(PW_KEY_DEVICE_ID).empty() && value(PW_KEY_DEVICE_API).empty()) || value(PW_KEY_NODE_VIRTUAL) == "true";
  }

  void takeInfo(const pw_node_info& info) {
    if ((info.change_mask & PW_NODE_CHANGE_MASK_PROPS) != 0) {
      learn(propertiesOf(info.props));
    }
  }

  void takeFormat(const spa_pod* format) {
    if (format != nullptr && spa_pod_is_object(format) && description.channels == 0) {
      description.channels = preferred(format, SPA_FORMAT_AUDIO_channels);
      description.sampleRate = preferred(format, SPA_FORMAT_AUDIO_rate);
    }
  }

  static const pw_node_events kEvents;

  pw_node* const proxy_;
  spa_hook hook_{};
};

const pw_node_events PipeWireSources::Node::kEvents = {
    .version = PW_VERSION_NODE_EVENTS,
    .info = [](void* self, const pw_node_info* info) { static_cast<Node*>(self)->takeInfo(*info); },
    .param = [](void* self, int, std::uint32_t, std::uint32_t, std::uint32_t,
                const spa_pod* param) { static_cast<Node*>(self)->takeFormat(param); },
};

/// Where the session manager writes its choice.
class PipeWireSources::Metadata {
 public:
  Metadata(PipeWireSources& owner, pw_registry* registry, const PipeWireObject& object)
      : id(object.id),
        owner_(owner),
        proxy_(static_cast<pw_metadata*>(
            pw_registry_bind(registry, object.id, object.type.c_str(), PW_VERSION_METADATA, 0))) {
    if (proxy_ != nullptr) {
      pw_metadata_add_listener(proxy_, &hook_, &kEvents, this);
    }
  }
  ~Metadata() {
    if (proxy_ != nullptr) {
      spa_hook_remove(&hook_);
      pw_proxy_destroy(reinterpret_cast<pw_proxy*>(proxy_));
    }
  }
  Metadata(const Metadata&) = delete;
  Metadata& operator=(const Metadata&) = delete;

  const std::uint32_t id;

 private:
  int take(std::uint32_t subject, const char* key, const char* value) {
    if (subject != PW_ID_CORE || (key != nullptr && std::string_view(key) != "default.audio.source")) {
      return 0;
    }
    const auto json = nlohmann::json::parse(key != nullptr && value != nullptr ? value : "{}", nullptr, false);
    const auto name = json.is_object() ? json.find("name") : json.end();
    owner_.defaultName_ = name != json.end() && name->is_string() ? name->get<std::string>() : std::string();
    owner_.changed();
    return 0;
  }

  static const pw_metadata_events kEvents;

  PipeWireSources& owner_;
  pw_metadata* const proxy_;
  spa_hook hook_{};
};

const pw_metadata_events PipeWireSources::Metadata::kEvents = {
    .version = PW_VERSION_METADATA_EVENTS,
    .property = [](void* self, std::uint32_t subject, const char* key, const char* /*type*/,
                   const char* value) { return static_cast<Metadata*>(self)->take(subject, key, value); },
};

std::shared_ptr<PipeWireSources> PipeWireSources::create(std::shared_ptr<PipeWireConnection> connection,
                                                         std::shared_ptr<Queue> queue,
                                                         std::shared_ptr<NotificationCenter> notifications) {
  return std::shared_ptr<PipeWireSources>(
      new PipeWireSources(std::move(connection), std::move(queue), std::move(notifications)));
}

PipeWireSources::PipeWireSources(std::shared_ptr<PipeWireConnection> connection, std::shared_ptr<Queue> queue,
                                 std::shared_ptr<NotificationCenter> notifications)
    : connection_(std::move(connection)), queue_(std::move(queue)), notifications_(std::move(notifications)) {}

PipeWireSources::~PipeWireSources() {
  if (used_) {
    const PipeWireConnection::Lock lock(*connection_);
    nodes_.clear();
    metadata_.reset();
    connection_->remove(*this);
  }
}

// ---- Questions

void PipeWireSources::use() {
  std::call_once(use_, [this] {
    connection_->add(*this);
    const PipeWireConnection::Lock lock(*connection_);
    used_ = true;
    changed();  // Where there is no daemon, nobody else says so.
  });
}

void PipeWireSources::awaitListing() { (void)connection_->waitUntilListed(kListingTime); }

std::vector<AudioInputDescription> PipeWireSources::list() {
  use();
  awaitListing();
  const PipeWireConnection::Lock lock(*connection_);
  std::vector<AudioInputDescription> descriptions;
  for (const auto& [id, node] : nodes_) {
    descriptions.push_back(node->description);
  }
  std::ranges::stable_sort(descriptions, {}, [this](const AudioInputDescription& description) {
    return std::pair(description.isVirtual, description.uniqueID != defaultName_);
  });
  return descriptions;
}

bool PipeWireSources::has(std::string_view name) const {
  return std::ranges::any_of(nodes_, [&](const auto& entry) { return entry.second->description.uniqueID == name; });
}

std::string PipeWireSources::localizedName(std::string_view name) const {
  for (const auto& [id, node] : nodes_) {
    if (node->description.uniqueID == name) {
      return node->description.localizedName;
    }
  }
  return std::string(name);
}

std::string PipeWireSources::linkedTo(std::uint32_t node) const {
  for (const auto& [id, ends] : links_) {
    const auto source = ends.input == node ? nodes_.find(ends.output) : nodes_.end();
    if (source != nodes_.end()) {
      return source->second->description.uniqueID;
    }
  }
  return {};
}

void PipeWireSources::add(Listener& listener) {
  listeners_.push_back(&listener);
  listener.sourcesChanged();
}

// ---- What the daemon tells

void PipeWireSources::connectionMade() {
  connected_ = true;
  changed();
}

void PipeWireSources::connectionLost() {
  connected_ = false;
  for (Listener* listener : std::vector(listeners_)) {
    listener->sourcesLost();
  }
  nodes_.clear();
  links_.clear();
  metadata_.reset();
  defaultName_.clear();
  changed();
}

void PipeWireSources::objectAppeared(const PipeWireObject& object) {
  if (isMicrophone(object)) {
    nodes_[object.id] = std::make_unique<Node>(connection_->registry(), object);
    changed();
  } else if (object.type == PW_TYPE_INTERFACE_Link) {
    links_[object.id] = {number(object.property(PW_KEY_LINK_OUTPUT_NODE)),
                         number(object.property(PW_KEY_LINK_INPUT_NODE))};
  } else if (object.type == PW_TYPE_INTERFACE_Metadata && object.property(PW_KEY_METADATA_NAME) == "default") {
    metadata_ = std::make_unique<Metadata>(*this, connection_->registry(), object);
  }
}

void PipeWireSources::objectVanished(std::uint32_t id) {
  links_.erase(id);
  if (metadata_ && metadata_->id == id) {
    metadata_.reset();
    defaultName_.clear();
    changed();
  }
  if (nodes_.erase(id) > 0) {
    changed();
  }
}

void PipeWireSources::changed() {
  for (Listener* listener : std::vector(listeners_)) {
    listener->sourcesChanged();
  }
  if (!std::exchange(settling_, true)) {
    queue_->async([weak = weak_from_this()] {
      if (const auto self = weak.lock()) {
        self->settle();
      }
    });
  }
}

// ---- What is told

void PipeWireSources::settle() {
  // What belongs together is one change: a daemon's list comes piece by piece.
  awaitListing();
  std::vector<std::int64_t> told;
  {
    const PipeWireConnection::Lock lock(*connection_);
    settling_ = false;
    Settled now;
    for (const auto& [id, node] : nodes_) {
      now.names.insert(node->description.uniqueID);
    }
    now.defaultName = defaultName_;
    told = reasons(settled_, now);
    settled_ = std::move(now);
  }
  for (const auto reason : told) {
    post(notification::AudioRouteChange, kAudioRouteChangeReasonKey, reason);
  }
}

std::vector<std::int64_t> PipeWireSources::reasons(const std::optional<Settled>& before, const Settled& now) {
  std::vector<std::int64_t> found;
  if (before && !std::ranges::includes(now.names, before->names)) {
    found.push_back(OldDevice);
  }
  if (before && !std::ranges::includes(before->names, now.names)) {
    found.push_back(NewDevice);
  }
  if (now.names.empty() && !(before && before->names.empty())) {
    found.push_back(NoRoute);
  }
  if (before && !before->defaultName.empty() && !now.defaultName.empty() && before->defaultName != now.defaultName &&
      now.names.contains(before->defaultName)) {
    found.push_back(Override);
  }
  return found;
}

void PipeWireSources::post(const char* name, const char* key, std::int64_t value) {
  queue_->async([notifications = notifications_, name, key, value] { notifications->post(name, {{key, value}}); });
}

}  // namespace zellive
