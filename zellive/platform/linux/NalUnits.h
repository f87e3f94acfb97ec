#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace zellive {

/// How the NAL units of a stream are told apart.
enum class NalFraming : std::uint8_t {
  Lengths,  ///< Each is led by its length, 4 bytes big-endian (ISO/IEC 14496-15, 5.3.3).
  AnnexB,   ///< Each is led by a start code 00 00 01 (ISO/IEC 14496-10, Annex B).
};

/// The NAL unit types that we tell apart (ISO/IEC 14496-10, table 7-1).
namespace nalType {
inline constexpr std::uint8_t Slice = 1;
inline constexpr std::uint8_t IdrSlice = 5;
inline constexpr std::uint8_t Sei = 6;
inline constexpr std::uint8_t Sps = 7;
inline constexpr std::uint8_t Pps = 8;
}  // namespace nalType

/// Where a NAL unit lies in its stream, without its length or start code. Never empty.
struct NalUnit {
  std::size_t offset = 0;
  std::size_t length = 0;
  std::uint8_t type = 0;

  [[nodiscard]] bool isSlice() const noexcept { return type >= nalType::Slice && type <= nalType::IdrSlice; }
};

/// Writes the NAL units of `stream` to `units`, in order. Reading ends at a length that runs past the end.
void findNalUnits(std::span<const std::uint8_t> stream, NalFraming framing, std::vector<NalUnit>& units);

/// Bytes that the slices among `units` take when each is led by its length.
[[nodiscard]] std::size_t packedSliceLength(const std::vector<NalUnit>& units);

/// Packs the slices among `units` of `stream` together within `stream`, each led by its length, and gives the part of
/// `stream` that holds them; what lay around them is overwritten. Nothing, with `stream` untouched, when there is no
/// room for a length ahead of some slice (a start code of three bytes is one too short).
[[nodiscard]] std::optional<std::span<std::uint8_t>> packSlicesInPlace(std::span<std::uint8_t> stream,
                                                                       const std::vector<NalUnit>& units);

/// Writes each slice among `units` of `stream`, led by its length, to `target`, which has room for all of them.
void packSlices(std::span<const std::uint8_t> stream, const std::vector<NalUnit>& units, std::uint8_t* target);

/// One SEI NAL unit that says who made the stream (user_data_unregistered, ISO/IEC 14496-10, D.1.6), led by its length.
[[nodiscard]] std::span<const std::uint8_t> makerSei();

}  // namespace zellive
