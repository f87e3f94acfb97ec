#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "zellive/platform/PixelBuffer.h"
#include "zellive/platform/linux/FfmpegSupport.h"

namespace zellive::test {

/// A still scene of smooth colours in the given format; the same scene at every size. The formulas are those of ITU-R
/// BT.601 in floating point.
std::shared_ptr<PixelBuffer> colourScene(PixelFormat format, std::size_t width, std::size_t height);

/// How far the picture is from that scene: the mean absolute difference of Y, Cb and Cr, in steps of 8-bit video range
/// or, for `fullRange`, of full range. `contentWidth` × `contentHeight` is what the scene was drawn at.
std::array<double, 3> differenceFromScene(const AVFrame& frame, bool fullRange, int contentWidth, int contentHeight);

/// Picture `index` of a restless scene, costly at any bit rate.
std::shared_ptr<PixelBuffer> restlessScene(std::size_t width, std::size_t height, int index);

}  // namespace zellive::test
