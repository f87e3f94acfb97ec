#pragma once

#include "zellive/platform/VirtualCamera.h"

namespace zellive {

/// A camera that shows a moving test card, for machines without a camera, demonstrations and bug reports: colour bars
/// (grey, yellow, cyan, green, magenta, red, blue from the left), the letter F, which no mirroring or turning leaves as
/// it is, and a white mark that moves from left to right in four seconds. Every machine has one, "zellive.test-card".
[[nodiscard]] VirtualCamera testCardCamera();

}  // namespace zellive
