#include "zellive/platform/VirtualMicrophones.h"

#include <algorithm>
#include <atomic>
#include <utility>

#include "zellive/platform/DeliveryGate.h"
#include "zellive/platform/PcmFormat.h"

namespace zellive {
namespace {

constexpr std::int64_t kBlocksPerSecond = 100;

/// Plays one virtual microphone into a callback. Outlives its unit by the callback under way.
class Player : public std::enable_shared_from_this<Player> {
 public:
  Player(std::shared_ptr<const VirtualMicrophone> microphone, const AudioStreamBasicDescription& format,
         AudioInputUnit::InputCallback callback, QueueService& queues, std::shared_ptr<MediaClock> clock)
      : microphone_(std::move(microphone)),
        rate_(static_cast<std::int64_t>(format.mSampleRate)),
        channels_(format.mChannelsPerFrame),
        callback_(std::move(callback)),
        clock_(std::move(clock)),
        block_(static_cast<std::size_t>(std::max<std::int64_t>(1, rate_ / kBlocksPerSecond)) * channels_),
        queue_(queues.makeSerialQueue("zellive.virtualMicrophone")) {}

  void start() {
    if (!gate_.isOpen()) {
      gate_.open();
      onQueue(&Player::begin, {});
    }
  }
  void stop() {
    ++run_;
    gate_.close();
  }

 private:
  void onQueue(void (Player::*task)(), std::chrono::nanoseconds delay) {
    (void)queue_->after(delay, [weak = weak_from_this(), task, run = run_.load()] {
      const auto self = weak.lock();
      if (self && self->run_ == run) {
        (self.get()->*task)();
      }
    });
  }

  void begin() {
    sound_ = microphone_->makeSound(static_cast<std::uint32_t>(rate_), channels_);
    position_ = framesAt(clock_->now());
    play();
  }

  /// Delivers what is due, one block after another, and waits for the next.
  void play() {
    const auto length = static_cast<std::int64_t>(block_.size() / channels_);
    const auto due = framesAt(clock_->now());
    if (due - position_ > rate_) {
      position_ = due - length;  // The machine stood still: nobody wants to hear all of it now.
    }
    const auto run = run_.load();
    for (; position_ + length <= due; position_ += length) {
      std::ranges::fill(block_, std::int16_t{0});
      if (sound_) {
        sound_->render(position_, block_);
      }
      gate_.deliver([&] { callback_(0, {reinterpret_cast<std::uint8_t*>(block_.data()), 2 * block_.size()}); });
      if (run_ != run) {
        return;
      }
    }
    onQueue(&Player::play, timeOf(position_ + length) - clock_->now());
  }

  /// Frames that have sounded since the clock began.
  [[nodiscard]] std::int64_t framesAt(std::chrono::nanoseconds time) const {
    constexpr std::int64_t second = 1'000'000'000;
    return time.count() / second * rate_ + time.count() % second * rate_ / second;
  }
  /// When they have; never too early.
  [[nodiscard]] std::chrono::nanoseconds timeOf(std::int64_t frames) const {
    constexpr std::int64_t second = 1'000'000'000;
    return std::chrono::nanoseconds(frames / rate_ * second + (frames % rate_ * second + rate_ - 1) / rate_);
  }

  const std::shared_ptr<const VirtualMicrophone> microphone_;
  const std::int64_t rate_;
  const std::uint32_t channels_;
  const AudioInputUnit::InputCallback callback_;
  const std::shared_ptr<MediaClock> clock_;
  DeliveryGate gate_;
  std::atomic<std::uint64_t> run_{0};

  // Of the queue.
  std::unique_ptr<VirtualMicrophoneSound> sound_;
  std::int64_t position_ = 0;
  std::vector<std::int16_t> block_;

  const std::shared_ptr<Queue> queue_;
};

class VirtualUnit : public AudioInputUnit {
 public:
  explicit VirtualUnit(std::shared_ptr<Player> player) : player_(std::move(player)) {}
  ~VirtualUnit() override { player_->stop(); }
  VirtualUnit(const VirtualUnit&) = delete;
  VirtualUnit& operator=(const VirtualUnit&) = delete;
  int start() override {
    player_->start();
    return 0;
  }
  int stop() override {
    player_->stop();
    return 0;
  }

 private:
  const std::shared_ptr<Player> player_;
};

}  // namespace

VirtualMicrophones::VirtualMicrophones(std::shared_ptr<AudioInputService> real, std::shared_ptr<QueueService> queues,
                                       std::shared_ptr<MediaClock> clock)
    : real_(std::move(real)), queues_(std::move(queues)), clock_(std::move(clock)) {}

std::vector<AudioInputDescription> VirtualMicrophones::devices() const {
  auto all = real_->devices();
  const std::lock_guard lock(mutex_);
  for (const Entry& entry : virtual_) {
    all.push_back({entry->uniqueID, entry->localizedName, entry->channels, entry->sampleRate, true});
  }
  return all;
}

bool VirtualMicrophones::addVirtualMicrophone(const VirtualMicrophone& microphone) {
  if (microphone.uniqueID.empty() || !microphone.makeSound) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  if (std::ranges::any_of(virtual_, [&](const Entry& entry) { return entry->uniqueID == microphone.uniqueID; })) {
    return false;
  }
  virtual_.push_back(std::make_shared<const VirtualMicrophone>(microphone));
  return true;
}

/// By its unique ID, before one by its name.
VirtualMicrophones::Entry VirtualMicrophones::find(std::string_view name) const {
  for (const auto member : {&VirtualMicrophone::uniqueID, &VirtualMicrophone::localizedName}) {
    for (const Entry& entry : virtual_) {
      if ((*entry).*member == name) {
        return entry;
      }
    }
  }
  return nullptr;
}

bool VirtualMicrophones::setPreferredInput(std::string_view name) {
  {
    const std::lock_guard lock(mutex_);
    if (auto found = name.empty() ? nullptr : find(name)) {
      preferred_ = std::move(found);
      return true;
    }
  }
  // Not under the lock: the daemon is asked.
  if (!real_->setPreferredInput(name)) {
    return false;
  }
  const std::lock_guard lock(mutex_);
  preferred_ = nullptr;
  return true;
}

std::unique_ptr<AudioInputUnit> VirtualMicrophones::makeUnit(const AudioStreamBasicDescription& format,
                                                             AudioInputUnit::InputCallback callback, int& status) {
  Entry chosen;
  {
    const std::lock_guard lock(mutex_);
    chosen = preferred_;
  }
  if (!chosen) {
    return real_->makeUnit(format, std::move(callback), status);
  }
  status = isSixteenBitPcm(format) && callback ? 0 : kUnsupportedAudioFormat;
  if (status != 0) {
    return nullptr;
  }
  return std::make_unique<VirtualUnit>(std::make_shared<Player>(chosen, format, std::move(callback), *queues_, clock_));
}

}  // namespace zellive
