#pragma once

// Pictures in memory, as textures hold them. Formats: R, RG and RGBA of 8 or 16 bits UNORM,
// R32G32B32A32_FLOAT; any other throws std::invalid_argument. Channels that a format lacks are 0.
// Pure functions.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "Host/Color.h"
#include "Platform/Direct3D.h"

namespace Norvex::Test {

using Color = std::array<double, 4>;

inline constexpr Conf::RGBColorSpace kSRGB = {Conf::ColorPrimaries::BT709,
                                              Conf::TransferCharacteristics::sRGB};
inline constexpr Conf::RGBColorSpace kRec709 = {Conf::ColorPrimaries::BT709,
                                                Conf::TransferCharacteristics::BT709};
inline constexpr Conf::RGBColorSpace kRec709Linear = {Conf::ColorPrimaries::BT709,
                                                      Conf::TransferCharacteristics::Linear};
inline constexpr Conf::RGBColorSpace kRec2020 = {Conf::ColorPrimaries::BT2020,
                                                 Conf::TransferCharacteristics::BT709};
inline constexpr Conf::RGBColorSpace kPQ = {Conf::ColorPrimaries::BT2020,
                                            Conf::TransferCharacteristics::PQ};
inline constexpr Conf::RGBColorSpace kHLG = {Conf::ColorPrimaries::BT2020,
                                             Conf::TransferCharacteristics::HLG};

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
