#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "apps/zellive/AvHandles.h"
#include "apps/zellive/MediaSource.h"

namespace zellive::tool {

/// Reads a media file and deals its packets out to one picture and one sound track, pass after pass when looping.
class ClipDemuxer {
 public:
  enum class Track : std::size_t { Video, Audio };
  /// Which tracks somebody reads; the other's packets are left in the file.
  enum class Use { Both, VideoOnly, AudioOnly };

  /// What a track gets next.
  struct Item {
    enum class Kind {
      Packet,
      PassEnd,  ///< Drain the decoder; what follows belongs to the next pass, whose time 0 is `origin`.
      End,      ///< Nothing will follow.
      Starved,  ///< The file holds so much of the other track in a row that it is not worth waiting for.
    };
    Kind kind = Kind::End;
    PacketPtr packet;
    MediaTime origin{};
  };

  /// Null with `error` set when the file cannot be opened or has no picture track; with AudioOnly, no sound track.
  [[nodiscard]] static std::unique_ptr<ClipDemuxer> open(const std::string& path, bool loop, std::string& error,
                                                         Use use = Use::Both);

  [[nodiscard]] Item next(Track track);

  /// Null when the file has no such track.
  [[nodiscard]] AVStream* stream(Track track) const;
  [[nodiscard]] AVFormatContext* format() const { return format_.get(); }
  /// Where a time of that track's own clock lies in its pass.
  [[nodiscard]] MediaTime inPass(Track track, std::int64_t time) const;
  /// The end of the last pass, once the file has been read to it.
  [[nodiscard]] std::optional<MediaTime> end() const { return end_; }
  /// As the file's header says; 0 where it does not.
  [[nodiscard]] MediaTime duration() const;
  /// Why reading stopped, when it was not the end of the file.
  [[nodiscard]] const std::string& failure() const { return failure_; }

 private:
  ClipDemuxer() = default;
  void readOne();
  void finishPass();
  [[nodiscard]] bool rewind();
  void smoothOut(MediaTime time);
  [[nodiscard]] AVStream* streamOf(std::size_t track) const;

  static constexpr std::size_t tracks = 2;
  /// About ten seconds of either track.
  static constexpr std::size_t waitLimit = 500;

  FormatPtr format_;
  bool loop_ = false;
  std::array<int, tracks> index_{-1, -1};
  std::array<std::deque<Item>, tracks> queue_;
  MediaTime origin_{};
  MediaTime shift_{};  ///< Makes up for jumps of the file's clock.
  MediaTime passEnd_{};
  std::size_t passPackets_ = 0;  ///< Of the track that counts: pictures, where there are any.
  std::optional<MediaTime> end_;
  std::string failure_;
};

}  // namespace zellive::tool
