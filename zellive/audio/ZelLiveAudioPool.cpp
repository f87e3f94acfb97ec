#include "zellive/audio/ZelLiveAudioPool.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace zellive {
namespace {

/// What a stage keeps between two calls: the bytes that do not fill a block yet, and the last stamp.
struct Stage {
  std::span<std::uint8_t> buffer;  ///< One block long.
  std::int64_t& leftLength;
  double& lastTimeStamp;
};

/// Cuts what is left and `data` into blocks and hands each to `emit`, filtered, with its stamp. Blocks are borrowed
/// from `data` where they can be; those to be filtered are taken into the stage's buffer, which is free by then.
template <typename Emit>
void cut(Stage stage, std::span<const std::uint8_t> data, double timeStamp, const ZelLiveAudioPool::Filters& filters,
         Emit emit) {
  const std::size_t block = stage.buffer.size();
  const auto left = static_cast<std::size_t>(stage.leftLength);
  const double delta = timeStamp - stage.lastTimeStamp;
  const auto length = static_cast<float>(data.size());
  const double first = static_cast<float>(block - left) / length;
  const double later = static_cast<float>(block) / length;
  double stamp = stage.lastTimeStamp;
  std::size_t held = left;
  bool started = false;

  while (held + data.size() >= block) {
    std::span<const std::uint8_t> whole = data.first(block - held);
    if (held > 0 || !filters.empty()) {
      std::ranges::copy(whole, stage.buffer.begin() + static_cast<std::ptrdiff_t>(held));
      for (const auto& filter : filters) {
        filter->processAudio(stage.buffer);
      }
      whole = stage.buffer;
    }
    data = data.subspan(block - held);
    held = 0;
    stamp = stamp + delta * (started ? later : first);
    started = true;
    emit(whole, stamp);
  }
  std::ranges::copy(data, stage.buffer.begin() + static_cast<std::ptrdiff_t>(held));
  stage.leftLength = static_cast<std::int64_t>(held + data.size());
  stage.lastTimeStamp = timeStamp;
}

}  // namespace

std::shared_ptr<ZelLiveAudioPool> ZelLiveAudioPool::create() {
  return std::shared_ptr<ZelLiveAudioPool>(new ZelLiveAudioPool);
}

void ZelLiveAudioPool::receiveAudioData(std::span<const std::uint8_t> data, double timeStamp) {
  const auto self = shared_from_this();
  std::shared_ptr<const Filters> filters;
  {
    const std::lock_guard lock(mutex_);
    filters = filters_;
  }
  cut({recvBuf_, recvLeftLength_, lastRecvTimeStamp_}, data, timeStamp, *filters,
      [this](std::span<const std::uint8_t> block, double stamp) { processdAudioData(block, stamp); });
}

void ZelLiveAudioPool::processdAudioData(std::span<const std::uint8_t> data, double timeStamp) {
  static const Filters none;
  const auto self = shared_from_this();
  cut({sendBuf_, sendLeftLength_, lastSendTimeStamp_}, data, timeStamp, none,
      [this](std::span<const std::uint8_t> block, double stamp) {
        if (const auto receiver = delegate()) {
          receiver->processedAudioData(*this, block, stamp);
        }
      });
}

void ZelLiveAudioPool::setDenoiseLevel(std::int64_t level) {
  if (level < 1 || level > 3) {
    return;
  }
  const auto suppressor = rnnoise();
  suppressor->setDenoiseLevel(static_cast<std::uint32_t>(level));
  const std::lock_guard lock(mutex_);
  if (std::ranges::find(*filters_, suppressor) == filters_->end()) {
    auto filters = std::make_shared<Filters>(*filters_);
    filters->push_back(suppressor);
    filters_ = std::move(filters);
  }
}

std::int64_t ZelLiveAudioPool::denoiseLevel() const {
  const std::lock_guard lock(mutex_);
  return rnnoise_ ? static_cast<std::int64_t>(rnnoise_->denoiseLevel()) : 0;
}

ZelLiveAudioPool::Filters ZelLiveAudioPool::filters() const {
  const std::lock_guard lock(mutex_);
  return *filters_;
}

void ZelLiveAudioPool::setFilters(Filters filters) {
  std::erase(filters, nullptr);
  auto replacement = std::make_shared<const Filters>(std::move(filters));
  const std::lock_guard lock(mutex_);
  filters_.swap(replacement);
}

std::shared_ptr<ZelLiveRnnoiseFilter> ZelLiveAudioPool::rnnoise() {
  {
    const std::lock_guard lock(mutex_);
    if (rnnoise_) {
      return rnnoise_;
    }
  }
  // Made outside the lock, for which audio may be waiting.
  auto made = std::make_shared<ZelLiveRnnoiseFilter>();
  const std::lock_guard lock(mutex_);
  if (!rnnoise_) {
    rnnoise_ = std::move(made);
  }
  return rnnoise_;
}

void ZelLiveAudioPool::setRnnoise(std::shared_ptr<ZelLiveRnnoiseFilter> rnnoise) {
  const std::lock_guard lock(mutex_);
  rnnoise_.swap(rnnoise);
}

std::shared_ptr<ZelLiveAudioPoolDelegate> ZelLiveAudioPool::delegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void ZelLiveAudioPool::setDelegate(std::weak_ptr<ZelLiveAudioPoolDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

}  // namespace zellive
