#pragma once

// Pictures in memory, as textures hold them. Formats: R, RG and RGBA of 8 or 16 bits UNORM,
// R32G32B32A32_FLOAT; any other throws std::invalid_argument. Channels that a format lacks are 0.
// Pure functions.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Platform/Direct3D.h"

namespace Norvex::Test {

using Color = std::array<double, 4>;

// RGBA pixels row by row, in the range of the format they are for.
struct Pixels {
    unsigned width = 0;
    unsigned height = 0;
    std::vector<Color> colors;

    const Color& At(unsigned x, unsigned y) const { return colors[std::size_t{y} * width + x]; }
};

Pixels MakePixels(unsigned width, unsigned height,
                  const std::function<Color(unsigned x, unsigned y)>& colorAt);

unsigned BytesPerPixel(DXGI_FORMAT format);
// Rows without gaps; values are quantised as the format does.
std::vector<std::uint8_t> EncodePixels(const Pixels& pixels, DXGI_FORMAT format);
Pixels DecodePixels(const std::uint8_t* bytes, std::size_t rowPitch, unsigned width,
                    unsigned height, DXGI_FORMAT format);

} // namespace Norvex::Test
