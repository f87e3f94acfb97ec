#pragma once

namespace zellive {

/// Width and height, in pixels unless a declaration says otherwise.
struct Size {
  double width = 0;
  double height = 0;
  friend bool operator==(const Size&, const Size&) = default;
};

}  // namespace zellive
