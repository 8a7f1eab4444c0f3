#pragma once

// What colours mean: code points of ITU-T H.273 ("Coding-independent code points"), alpha types, a
// colour value, and the luma-chroma matrices. Plain values.

#include <array>
#include <cstdint>

#include "Platform/Export.h"

namespace Norvex::Conf {

// ITU-T H.273, table 2. The values are the code points.
enum class ColorPrimaries : std::uint32_t { BT709 = 1, BT2020 = 9 };

// ITU-T H.273, table 3. The values are the code points.
enum class TransferCharacteristics : std::uint32_t {
    BT709 = 1,
    Linear = 8,
    sRGB = 13,
    PQ = 16,
    HLG = 18
};

// A colour space as three code points of H.273.
struct ColorSpace {
    std::uint32_t primaries = 0; // table 2
    std::uint32_t transfer = 0;  // table 3
    std::uint32_t matrix = 0;    // table 4

    friend bool operator==(const ColorSpace&, const ColorSpace&) = default;
};

// An RGB colour space: primaries and transfer characteristics.
struct RGBColorSpace {
    ColorPrimaries primaries = ColorPrimaries::BT709;                 // of the colours
    TransferCharacteristics transfer = TransferCharacteristics::sRGB; // of their encoding

    friend bool operator==(const RGBColorSpace&, const RGBColorSpace&) = default;
};

// Luma-chroma matrices; the values are the code points of H.273, table 4 (BT.601 in its 525-line
// form, the coefficients of both forms are the same).
enum class YCbCrMatrix : std::uint32_t { BT709 = 1, BT601 = 6, BT2020NonConstant = 9 };

// Rows Y', P'b, P'r over columns R', G', B' of the analogue form: Y' in [0, 1], P'b and P'r in
// [-0.5, 0.5] for R'G'B' in [0, 1]. From Kr and Kb of ITU-R BT.601-7 (0.299, 0.114), BT.709-6
// (0.2126, 0.0722) and BT.2020-2 (0.2627, 0.0593): Y' = Kr R' + (1 - Kr - Kb) G' + Kb B'; P'b = (B'
// - Y') / (2 (1 - Kb)); P'r = (R' - Y') / (2 (1 - Kr)). Throws std::invalid_argument for a value
// that is none of the three.
NORVEX_HOST_API std::array<std::array<double, 3>, 3> GetRGBToYpPbPrMatrix(YCbCrMatrix matrix);

} // namespace Norvex::Conf

namespace Norvex::Proc {

// How a picture's alpha relates to its colour. The values are those that the shaders read.
enum class AlphaType : std::uint32_t {
    NonPremultiplied = 0, // "straight": colour is independent of alpha
    AlphaIsOne = 1,       // opaque: what the alpha channel holds is ignored
    Premultiplied = 2,    // colour was multiplied by alpha, in the encoded (non-linear) domain
};

// One colour, four floats in the order of memory; range and meaning are the target's.
struct ColorF {
    float r = 0.0F; // red
    float g = 0.0F; // green
    float b = 0.0F; // blue
    float a = 0.0F; // alpha, 1.0 is opaque

    friend bool operator==(const ColorF&, const ColorF&) = default;
};

} // namespace Norvex::Proc
