#pragma once

// The samples of a frame as files want them. Two-byte samples are little endian, as this machine
// has them. Pure functions, any thread.

#include <cstdint>
#include <span>
#include <vector>

#include "apps/norvexdx/clips/VideoFormat.h"

namespace Norvex::App {

// Rounds each sample to the nearest code; what is below the code becomes zero. Nothing at 8 and 16
// bits, where samples are codes.
void RoundToCodes(const VideoFormat& format, std::span<std::uint8_t> samples);

// From luma and chroma pairs, rounded to codes, to three planes of bare codes: luma, C'b, C'r.
// `planes` and `out` hold one frame.
void Deinterleave(const VideoFormat& format, const DX::Size2DT<long>& size,
                  std::span<const std::uint8_t> planes, std::vector<std::uint8_t>& out);

} // namespace Norvex::App
