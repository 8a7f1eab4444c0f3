#pragma once

// What a frame of a clip should hold, in double precision, from ITU-R BT.601-7, BT.709-6 and
// BT.2020-2: narrow range, each chroma sample the mean of 2 x 2, the edge repeated. Pure functions.

#include <vector>

#include "apps/norvexdx/Image.h"
#include "apps/norvexdx/VideoFormat.h"
#include "tests/support/ColorReference.h"

namespace Norvex::Test {

// RGBA of an image, from 0 to 1, row by row.
std::vector<Pixel> GetPixels(const App::Image& image);

// Samples of a frame as a raw file has them: luma, then chroma pairs. Alpha is over black.
std::vector<double> ReferenceFrame(const std::vector<Pixel>& pixels, const DX::Size2DT<long>& size,
                                   const App::VideoFormat& format, Conf::YCbCrMatrix matrix);

// The samples of a raw frame.
std::vector<double> GetSamples(const App::VideoFormat& format, const std::uint8_t* frame,
                               std::size_t sizeInBytes);

// Where the two first differ by more than one code at 8 or 10 bits, eight at 16; empty when
// nowhere.
std::string DescribeDifference(const App::VideoFormat& format, const std::vector<double>& actual,
                               const std::vector<double>& expected);

} // namespace Norvex::Test
