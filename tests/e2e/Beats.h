#pragma once

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "tests/support/Process.h"

namespace zellive::test {

/// The numbers that follow each `mark`.
inline std::vector<double> timesAfter(const std::string& text, const std::string& mark) {
  std::vector<double> times;
  for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
    times.push_back(std::stod(text.substr(at + mark.size())));
  }
  return times;
}

/// How much later the picture is than the sound at every flash of a recorded test card, in seconds, as a player shows
/// it: ffmpeg tells when the white field stops being dark, and when silence stops.
inline std::vector<double> offsets(const std::string& path) {
  const auto found = runProgram({"ffmpeg", "-v", "info", "-nostats", "-i", path, "-vf",
                                 "crop=iw/4:ih/8:iw*3/8:ih/5,blackdetect=d=0.1:pic_th=0.9:pix_th=0.85", "-af",
                                 "silencedetect=noise=-24dB:d=0.3", "-f", "null", "-"});
  const auto beeps = timesAfter(found.errors, "silence_end: ");
  auto flashes = timesAfter(found.errors, "black_end:");
  if (!flashes.empty()) {
    flashes.pop_back();  // Where the recording ends, the dark does too.
  }
  std::vector<double> differences;
  for (const double flash : flashes) {
    const auto nearer = [&](double one, double other) { return std::abs(one - flash) < std::abs(other - flash); };
    const auto beep = std::ranges::min_element(beeps, nearer);
    if (beep != beeps.end() && std::abs(*beep - flash) < 0.5) {
      differences.push_back(flash - *beep);
    }
  }
  return differences;
}

}  // namespace zellive::test
