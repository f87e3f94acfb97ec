#include "zellive/transport/RtmpMetadata.h"

#include <librtmp/amf.h>

#include <string_view>

#include "zellive/platform/Geometry.h"
#include "zellive/session/ZelLiveAudioConfiguration.h"
#include "zellive/session/ZelLiveStreamInfo.h"
#include "zellive/session/ZelLiveVideoConfiguration.h"

namespace zellive {
namespace {

constexpr std::size_t kRoom = 2048;

/// AMF0 values one after the other. All of them are of fixed size, far below the room.
class AmfWriter {
 public:
  explicit AmfWriter(std::span<std::uint8_t> out)
      : start_(reinterpret_cast<char*>(out.data())), at_(start_), end_(start_ + out.size()) {}

  AmfWriter& text(std::string_view value) {
    const AVal string = asAVal(value);
    at_ = AMF_EncodeString(at_, end_, &string);
    return *this;
  }
  AmfWriter& text(std::string_view key, std::string_view value) {
    const AVal name = asAVal(key);
    const AVal string = asAVal(value);
    at_ = AMF_EncodeNamedString(at_, end_, &name, &string);
    return *this;
  }
  AmfWriter& number(std::string_view key, double value) {
    const AVal name = asAVal(key);
    at_ = AMF_EncodeNamedNumber(at_, end_, &name, value);
    return *this;
  }
  AmfWriter& flag(std::string_view key, bool value) {
    const AVal name = asAVal(key);
    at_ = AMF_EncodeNamedBoolean(at_, end_, &name, value ? 1 : 0);
    return *this;
  }
  AmfWriter& beginObject() {
    *at_++ = AMF_OBJECT;
    return *this;
  }
  AmfWriter& endObject() {
    at_ = AMF_EncodeInt24(at_, end_, AMF_OBJECT_END);
    return *this;
  }
  [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(at_ - start_); }

 private:
  static AVal asAVal(std::string_view value) {
    return {const_cast<char*>(value.data()), static_cast<int>(value.size())};
  }

  char* start_;
  char* at_;
  char* end_;
};

}  // namespace

void packMetaData(const ZelLiveStreamInfo& stream, RtmpBody& body) {
  const auto& audio = stream.audioConfiguration;
  const auto& video = stream.videoConfiguration;
  const Size size = video ? video->videoSize() : Size{};
  const auto videoRate = video ? static_cast<float>(video->videoBitRate()) / 1000.0F : 0.0F;
  AmfWriter writer(body.resize(kRoom));
  writer.text("@setDataFrame")
      .text("onMetaData")
      .beginObject()
      .number("duration", 0)
      .number("filesize", 0)
      .number("width", size.width)
      .number("height", size.height)
      .text("videocodecid", "avc1")
      .number("videodatarate", static_cast<double>(videoRate))
      .number("framerate", video ? static_cast<double>(video->videoFrameRate()) : 0)
      .text("audiocodecid", "mp4a")
      .number("audiodatarate", audio ? static_cast<double>(audio->audioBitRate()) : 0)
      .number("audiosamplerate", audio ? static_cast<double>(audio->audioSampleRate()) : 0)
      .number("audiosamplesize", 16)
      .flag("stereo", audio && audio->numberOfChannels() == 2)
      .text("encoder", "ZelLive 1.0")
      .endObject();
  body.resize(writer.size());
}

}  // namespace zellive
