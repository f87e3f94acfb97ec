#pragma once

#include <array>

namespace zellive {

/// A 3 × 3 matrix, column by column, as OpenGL takes it: (Y, Cb − ½, Cr − ½) to (R, G, B), all 0…1.
using ColorConversion = std::array<float, 9>;

/// ITU-R BT.601, Y 16…235.
inline constexpr ColorConversion kColorConversion601 = {1.164F, 1.164F,  1.164F,  //
                                                        0.0F,   -0.392F, 2.017F,  //
                                                        1.596F, -0.813F, 0.0F};
/// ITU-R BT.601, Y 0…255.
inline constexpr ColorConversion kColorConversion601FullRange = {1.0F, 1.0F,    1.0F,    //
                                                                 0.0F, -0.343F, 1.765F,  //
                                                                 1.4F, -0.711F, 0.0F};
/// ITU-R BT.709, Y 16…235.
inline constexpr ColorConversion kColorConversion709 = {1.164F, 1.164F,  1.164F,  //
                                                        0.0F,   -0.213F, 2.112F,  //
                                                        1.793F, -0.533F, 0.0F};

}  // namespace zellive
