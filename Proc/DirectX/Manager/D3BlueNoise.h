#pragma once

// A pattern of thresholds without low frequencies, for dither that shows neither bands nor a
// texture: what it adds is fine grain. D3FrameConverter.h uses it; hosts may in shaders of their
// own.

#include <array>
#include <cstddef>
#include <cstdint>

#include "Platform/Export.h"

namespace Norvex::DX {

// Rows and columns; the pattern continues at its edges.
inline constexpr std::size_t kBlueNoiseSize = 64;

// Row by row, each rank from 0 to 4095 once: the threshold is (rank + 0.5) / 4096. Always the same.
// Made when it is first asked for, which takes some 20 ms of one processor; any thread, others wait
// meanwhile. From R. Ulichney, "The void-and-cluster method for dither array generation", Proc.
// SPIE 1913, 1993, with a Gaussian of 1.5 pixels. Throws nothing.
NORVEX_DX_API const std::array<std::uint16_t, kBlueNoiseSize * kBlueNoiseSize>& GetBlueNoiseRanks();

} // namespace Norvex::DX
