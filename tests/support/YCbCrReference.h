#pragma once

// A frame in Y'CbCr 4:2:0 in double precision, to judge conversions by: ITU-R BT.601-7, BT.709-6
// and BT.2020-2 in narrow range, each chroma sample the mean of 2 x 2, the edge repeated. Pure
// functions.

#include <span>
#include <string>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/CommonTypes.h"
#include "tests/support/Pixels.h"

namespace Norvex::Test {

// As memory holds it: luma row by row, then pairs of C'b and C'r; each a code divided by 2^bits.
// Straight alpha is over black; any other is left alone. chromaSize: half the size, rounded either
// way.
std::vector<double> ReferenceFrame(const Pixels& pixels, Conf::YCbCrMatrix matrix,
                                   Proc::AlphaType alpha, const DX::Size2DT<unsigned>& chromaSize);

// Where a frame of codes of 8, 10 or 16 bits, each in the high bits of a sample of 8 or 16 as the
// device rounds that, first differs by more than a code and a half (8), one (10) or eight (16);
// empty when nowhere.
std::string DescribeDifference(std::span<const std::uint8_t> frame, unsigned bits,
                               const std::vector<double>& expected);

} // namespace Norvex::Test
