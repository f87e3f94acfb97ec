#include "zellive/codec/ZelHardwareAudioEncoder.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "zellive/platform/Log.h"
#include "zellive/platform/PcmFormat.h"

namespace zellive {
namespace {

/// Far more channels than any converter takes; beyond it a configuration is not worth memory.
constexpr std::uint64_t kLargestBuffer = std::uint64_t{2048} * 64;
/// The status of a converter that does not exist.
constexpr int kNoConverter = -50;

std::size_t usableLength(std::uint64_t bufferLength) {
  return bufferLength <= kLargestBuffer ? static_cast<std::size_t>(bufferLength) : 0;
}

std::uint32_t clampedRate(std::uint64_t bitRate) {
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(bitRate, std::numeric_limits<std::uint32_t>::max()));
}

AudioStreamBasicDescription inputFormat(const ZelLiveAudioConfiguration& configuration) {
  return sixteenBitPcm(static_cast<double>(configuration.audioSampleRate()),
                       clampedRate(configuration.numberOfChannels()));
}

AudioStreamBasicDescription outputFormat(const ZelLiveAudioConfiguration& configuration) {
  AudioStreamBasicDescription format;
  format.mSampleRate = static_cast<double>(configuration.audioSampleRate());
  format.mFormatID = kAudioFormatMPEG4AAC;
  format.mFramesPerPacket = 1024;
  format.mChannelsPerFrame = clampedRate(configuration.numberOfChannels());
  return format;
}

}  // namespace

std::shared_ptr<ZelHardwareAudioEncoder> ZelHardwareAudioEncoder::create(
    std::shared_ptr<ZelLiveAudioConfiguration> configuration, std::shared_ptr<const Platform> platform) {
  if (!configuration) {
    return nullptr;
  }
  return std::shared_ptr<ZelHardwareAudioEncoder>(
      new ZelHardwareAudioEncoder(std::move(configuration), std::move(platform)));
}

ZelHardwareAudioEncoder::ZelHardwareAudioEncoder(std::shared_ptr<ZelLiveAudioConfiguration> configuration,
                                                 std::shared_ptr<const Platform> platform)
    : configuration_(std::move(configuration)),
      platform_(std::move(platform)),
      output_([this](std::uint64_t reference, Data unit) { deliver(reference, std::move(unit)); }),
      leftBuf_(usableLength(configuration_->bufferLength())) {}

ZelHardwareAudioEncoder::~ZelHardwareAudioEncoder() {
  ZEL_LOG_INFO("dealloc %s", describeObject("ZelHardwareAudioEncoder", this).c_str());
}

void ZelHardwareAudioEncoder::setDelegate(std::weak_ptr<ZelAudioEncodingDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  aacDelegate_ = std::move(delegate);
}

void ZelHardwareAudioEncoder::createAudioConvert() {
  if (converter_) {
    return;
  }
  int status = 0;
  converter_ = platform_->audioConversion->create(inputFormat(*configuration_), outputFormat(*configuration_), status);
  if (!converter_) {
    ZEL_LOG_ERROR("Live: AudioConverterNewSpecific() error, Error Domain=NSOSStatusErrorDomain Code=%d", status);
    return;
  }
  const int rateStatus = converter_->setEncodeBitRate(clampedRate(configuration_->audioBitRate()));
  if (rateStatus != 0) {
    ZEL_LOG_WARNING("Live: the audio encoder refuses %llu bit/s (%d) and keeps its own bit rate",
                    static_cast<unsigned long long>(configuration_->audioBitRate()), rateStatus);
  }
}

void ZelHardwareAudioEncoder::encodeAudioData(std::span<const std::uint8_t> data, std::uint64_t timeStamp) {
  const auto self = shared_from_this();  // A delegate may let go of the encoder.
  createAudioConvert();
  const std::size_t bufferLength = leftBuf_.size();
  if (bufferLength == 0) {
    return;
  }
  if (leftLength_ > 0) {
    const std::size_t taken = std::min(bufferLength - leftLength_, data.size());
    std::copy_n(data.data(), taken, leftBuf_.data() + leftLength_);
    leftLength_ += taken;
    data = data.subspan(taken);
    if (leftLength_ < bufferLength) {
      return;
    }
    leftLength_ = 0;
    encodeBuffer(leftBuf_, timeStamp);
  }
  for (; data.size() >= bufferLength; data = data.subspan(bufferLength)) {
    encodeBuffer(data.first(bufferLength), timeStamp);
  }
  std::ranges::copy(data, leftBuf_.begin());
  leftLength_ = data.size();
}

void ZelHardwareAudioEncoder::encodeBuffer(std::span<const std::uint8_t> chunk, std::uint64_t timeStamp) {
  const int status = converter_ ? converter_->convert(chunk, timeStamp, output_) : kNoConverter;
  if (status != 0) {
    ZEL_LOG_ERROR("Live: AudioConverterFillComplexBuffer() error, %d", status);
  }
}

void ZelHardwareAudioEncoder::deliver(std::uint64_t timeStamp, Data accessUnit) {
  std::shared_ptr<ZelAudioEncodingDelegate> delegate;
  {
    const std::lock_guard lock(mutex_);
    delegate = aacDelegate_.lock();
  }
  if (!delegate) {
    return;
  }
  auto frame = std::make_shared<ZelLiveAudioFrame>();
  frame->timestamp = timeStamp;
  frame->data = std::move(accessUnit);
  frame->audioInfo = audioInfo();
  delegate->audioEncoderAudioFrame(*this, std::move(frame));
}

/// All frames share the two bytes, until somebody changes the configuration.
const Data& ZelHardwareAudioEncoder::audioInfo() {
  const auto& asc = configuration_->asc();
  if (!audioInfo_ || !std::ranges::equal(audioInfo_.span(), asc)) {
    audioInfo_ = Data::copyOf(asc);
  }
  return audioInfo_;
}

}  // namespace zellive
