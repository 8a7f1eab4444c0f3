#pragma once

// Frames of video in double precision, for tests and the doctor to judge the library's by. Written
// from ITU-T H.273, ITU-R BT.601-7, BT.709-6 and BT.2020-2, not from the shaders; of the library's
// description the members alone are read. Pure functions.

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "Host/ColorConversionInfo.h"
#include "Proc/DirectX/Manager/D3Frame.h"
#include "apps/norvexdx/reference/ColorReference.h"

namespace Norvex::Reference {

// The codes of a frame, need not be whole: Y', C'b, C'r, or R', G', B' and alpha from 0 to 1, each
// row by row.
struct Frame {
    DX::D3FrameDesc desc;
    std::array<std::vector<double>, 4> channels;
};

// The samples that a channel has.
DX::Size2DT<long> SizeOfChannel(const DX::D3FrameDesc& desc, unsigned channel);
// code(channel, x, y), cut to what a frame may hold.
Frame MakeFrame(const DX::D3FrameDesc& desc,
                const std::function<double(unsigned channel, long x, long y)>& code);
// The code of 0, and how many there are up to 1, of a channel.
double ZeroCode(const DX::D3FrameDesc& desc, unsigned channel);
double CodesToOne(const DX::D3FrameDesc& desc, unsigned channel);

// R'G'B' and alpha of a pixel, with chroma interpolated bilinearly or by Catmull and Rom's cubic
// where it lies.
Pixel ColorOf(const Frame& frame, long x, long y, bool hasCubicChroma);
// The codes of the target before they are rounded: each chroma sample is the mean of the pixels
// about its place, two (half each) or three (a quarter, half, a quarter) across and down.
Frame ConvertFrame(const Frame& source, const DX::D3FrameDesc& target,
                   const Proc::ColorConversionInfo& conversion, bool hasCubicChroma,
                   const DX::D3ToneMapping& tones = {});

// As a file has it, in Y'CbCr: planes one behind the other, codes rounded, in the low bits but of
// P010.
std::vector<std::uint8_t> PackFrame(const Frame& frame);

struct FrameDifference {
    double largest = 0.0; // codes
    double psnr = 0.0;    // dB, of all samples; the peak is the largest code
};
// Of a packed frame from codes that need not be whole. Of another size all is different.
FrameDifference CompareFrame(std::span<const std::uint8_t> packed, const Frame& expected);

} // namespace Norvex::Reference
