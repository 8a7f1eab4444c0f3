#pragma once

// A frame in Y'CbCr 4:2:0 in double precision, for tests and the doctor to judge conversions by:
// ITU-R BT.601-7, BT.709-6 and BT.2020-2 in narrow range, each chroma sample the mean of 2 x 2, the
// edge repeated. Pure functions.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "apps/norvexdx/reference/ColorReference.h"

namespace Norvex::Reference {

// As memory holds it: luma row by row, then pairs of C'b and C'r; each a code divided by 2^bits.
// Pixels row by row, as many as size says. Straight alpha is over black; any other is left alone.
// chromaSize: half the size, rounded either way.
std::vector<double> ReferenceFrame(std::span<const Pixel> pixels, const DX::Size2DT<unsigned>& size,
                                   Conf::YCbCrMatrix matrix, Proc::AlphaType alpha,
                                   const DX::Size2DT<unsigned>& chromaSize);

// The sample of a frame that is furthest off, in units of the sample.
struct FrameError {
    std::size_t index = 0;
    double sample = 0.0;
    double wanted = 0.0;
    double largest = 0.0;
    double allowed = 0.0;

    bool IsRight() const { return largest <= allowed; }
};
// Of a frame of codes of 8, 10 or 16 bits, each in the high bits of a sample of 8 or 16 as the
// device rounds that. Allowed are a code and a half (8), one (10) or eight (16). A frame of another
// size is off by infinity.
FrameError FindLargestError(std::span<const std::uint8_t> frame, unsigned bits,
                            const std::vector<double>& expected);
// In words; empty where it is right.
std::string DescribeDifference(std::span<const std::uint8_t> frame, unsigned bits,
                               const std::vector<double>& expected);

} // namespace Norvex::Reference
