#include "zellive/platform/linux/FfmpegAudioConversion.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <utility>

#include "zellive/platform/linux/FfmpegSupport.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
}

namespace zellive {
namespace {

constexpr int kFramesPerUnit = 1024;
constexpr std::size_t kBytesPerSample = 2;
/// Bits per second of a channel from which the native encoder's plain search comes closer to the sound than its
/// thorough one, which spends its time on what to leave out. It takes less than half the time.
constexpr std::int64_t kAmpleBitRate = 96'000;

std::int16_t sampleAt(const std::uint8_t* bytes) {
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8));
}

class FfmpegAudioConverter final : public AudioConverter {
 public:
  FfmpegAudioConverter(const AVCodec& codec, int sampleRate, int channels)
      : codec_(codec), sampleRate_(sampleRate), channels_(channels), packet_(av_packet_alloc()) {}

  /// Opens the encoder: 0, or its error. A bit rate of 0 leaves the choice to the encoder.
  [[nodiscard]] int open(std::int64_t bitRate) {
    ffmpeg::CodecContextPtr context(avcodec_alloc_context3(&codec_));
    if (!context || !packet_) {
      return AVERROR(ENOMEM);
    }
    context->sample_rate = sampleRate_;
    context->sample_fmt = codec_.sample_fmts[0];
    av_channel_layout_default(&context->ch_layout, channels_);
    context->profile = FF_PROFILE_AAC_LOW;
    context->time_base = {1, sampleRate_};
    context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;  // Raw units, no ADTS.
    context->log_level_offset = ffmpeg::kErrorsOnly;
    if (bitRate > 0) {
      context->bit_rate = bitRate;
    }
    AVDictionary* options = nullptr;
    if (bitRate >= kAmpleBitRate * channels_) {
      av_dict_set(&options, "aac_coder", "fast", 0);  // Other encoders than the native one do not know it.
    }
    const int status = avcodec_open2(context.get(), &codec_, &options);
    av_dict_free(&options);
    if (status < 0) {
      return status;
    }
    if (context->frame_size != kFramesPerUnit) {
      return AVERROR(EINVAL);
    }
    context_ = std::move(context);
    return 0;
  }

  int setEncodeBitRate(std::uint32_t bitRate) override { return nextChunk_ == 0 ? open(bitRate) : AVERROR(EINVAL); }

  int convert(std::span<const std::uint8_t> pcm, std::uint64_t reference, const OutputHandler& output) override {
    if (pcm.size() != kFramesPerUnit * kBytesPerSample * static_cast<std::size_t>(channels_)) {
      return AVERROR(EINVAL);
    }
    if (!prepareFrame()) {
      return AVERROR(ENOMEM);
    }
    fill(pcm);
    frame_->pts = nextChunk_ * kFramesPerUnit;
    pending_.push_back({nextChunk_++, reference});
    if (const int status = avcodec_send_frame(context_.get(), frame_.get()); status < 0) {
      pending_.pop_back();
      return status;
    }
    return ffmpeg::receivePackets(*context_, *packet_, [&] { deliver(output); });
  }

 private:
  struct Pending {
    std::int64_t chunk;
    std::uint64_t reference;
  };

  /// The frame of the last call serves again, unless the encoder has kept it.
  bool prepareFrame() {
    if (frame_ && av_frame_is_writable(frame_.get()) == 1) {
      return true;
    }
    frame_.reset(av_frame_alloc());
    if (!frame_) {
      return false;
    }
    frame_->nb_samples = kFramesPerUnit;
    frame_->format = context_->sample_fmt;
    frame_->sample_rate = sampleRate_;
    return av_channel_layout_copy(&frame_->ch_layout, &context_->ch_layout) == 0 &&
           av_frame_get_buffer(frame_.get(), 0) == 0;
  }

  void fill(std::span<const std::uint8_t> pcm) {
    if (context_->sample_fmt == AV_SAMPLE_FMT_S16) {
      auto* samples = reinterpret_cast<std::int16_t*>(frame_->data[0]);
      for (std::size_t index = 0; index < pcm.size() / kBytesPerSample; ++index) {
        samples[index] = sampleAt(pcm.data() + index * kBytesPerSample);
      }
      return;
    }
    const auto channels = static_cast<std::size_t>(channels_);
    for (std::size_t channel = 0; channel < channels; ++channel) {
      auto* samples = reinterpret_cast<float*>(frame_->data[channel]);
      const std::uint8_t* from = pcm.data() + channel * kBytesPerSample;
      for (std::size_t index = 0; index < kFramesPerUnit; ++index) {
        samples[index] = static_cast<float>(sampleAt(from + index * channels * kBytesPerSample)) / 32768.0F;
      }
    }
  }

  /// A unit's own chunk is the one that it starts to sound with, which its time tells. Units from before the first
  /// chunk only prime the decoder, and belong to no chunk.
  void deliver(const OutputHandler& output) {
    const std::int64_t chunk = packet_->pts / kFramesPerUnit;
    if (packet_->pts < 0 || packet_->size <= 0) {
      return;
    }
    while (!pending_.empty() && pending_.front().chunk < chunk) {
      pending_.pop_front();
    }
    if (pending_.empty()) {
      return;
    }
    const std::uint64_t reference = pending_.front().reference;
    pending_.pop_front();
    const std::span<const std::uint8_t> bytes(packet_->data, static_cast<std::size_t>(packet_->size));
    auto memory = ffmpeg::takeMemory(*packet_);
    output(reference, memory ? Data(std::move(memory), bytes) : Data::copyOf(bytes));
  }

  const AVCodec& codec_;
  int sampleRate_;
  int channels_;
  ffmpeg::CodecContextPtr context_;
  ffmpeg::PacketPtr packet_;
  ffmpeg::FramePtr frame_;
  std::int64_t nextChunk_ = 0;
  std::deque<Pending> pending_;
};

bool isSixteenBitPcm(const AudioStreamBasicDescription& format) {
  constexpr std::uint32_t flags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
  return format.mFormatID == kAudioFormatLinearPCM && format.mFormatFlags == flags && format.mBitsPerChannel == 16 &&
         format.mFramesPerPacket == 1 && format.mBytesPerFrame == kBytesPerSample * format.mChannelsPerFrame;
}

bool isAac(const AudioStreamBasicDescription& format) {
  return format.mFormatID == kAudioFormatMPEG4AAC && format.mFramesPerPacket == kFramesPerUnit;
}

bool knowsRate(const AVCodec& codec, double rate) {
  for (const int* known = codec.supported_samplerates; known != nullptr && *known != 0; ++known) {
    if (*known == rate) {
      return true;
    }
  }
  return false;
}

bool takesSamples(const AVCodec& codec) {
  return codec.sample_fmts[0] == AV_SAMPLE_FMT_S16 || codec.sample_fmts[0] == AV_SAMPLE_FMT_FLTP;
}

class FfmpegAudioConversion final : public AudioConverterService {
 public:
  std::unique_ptr<AudioConverter> create(const AudioStreamBasicDescription& input,
                                         const AudioStreamBasicDescription& output, int& status) override {
    const std::uint32_t channels = input.mChannelsPerFrame;
    status = AVERROR(EINVAL);
    if (!isSixteenBitPcm(input) || !isAac(output) || input.mSampleRate != output.mSampleRate ||
        channels != output.mChannelsPerFrame || channels < 1 || channels > 2) {
      return nullptr;
    }
    for (const char* name : {"libfdk_aac", "aac"}) {
      const AVCodec* codec = avcodec_find_encoder_by_name(name);
      if (codec == nullptr || !takesSamples(*codec) || !knowsRate(*codec, input.mSampleRate)) {
        continue;
      }
      auto converter = std::make_unique<FfmpegAudioConverter>(*codec, static_cast<int>(input.mSampleRate),
                                                              static_cast<int>(channels));
      status = converter->open(0);
      if (status == 0) {
        return converter;
      }
    }
    return nullptr;
  }
};

}  // namespace

std::shared_ptr<AudioConverterService> makeFfmpegAudioConversion() { return std::make_shared<FfmpegAudioConversion>(); }

}  // namespace zellive
