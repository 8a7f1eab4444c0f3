#pragma once

// The YUV4MPEG2 ("Y4M") container: a line of parameters, then before each frame a line "FRAME" and
// its planes. The header both ways, and the frames that become RGB. Pure functions, any thread.
// Throws Failure, without a file's name.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "apps/norvexdx/clips/VideoFormat.h"
#include "apps/norvexdx/pictures/Image.h"

namespace Norvex::App {

constexpr std::string_view kY4mMagic = "YUV4MPEG2 ";
constexpr std::string_view kY4mFrame = "FRAME";

// Progressive frames in narrow range: others are refused.
struct Y4mHeader {
    DX::Size2DT<long> size;
    std::optional<FrameRate> rate; // empty: the file does not say
    std::string aspect = "0:0";    // width to height of a pixel; 0:0: the file does not say
    std::string colors = "420jpeg";
};

// The header line without its line break. Failures: no width or height, interlaced, full range.
Y4mHeader ParseY4mHeader(std::string_view line);
// With its line break.
std::string MakeY4mHeader(const Y4mHeader& header);

// How a frame that can become RGB lies in the file: one plane of luma, or three of equal size.
struct Y4mSamples {
    unsigned bits = 8; // of a code, in the low bits of a sample
    unsigned planes = 3;

    std::size_t GetSampleSize() const { return bits == 8 ? 1 : 2; }
};

// 444 and mono, also with 10, 12, 14 or 16 bits; Failure for any other, because RGB would depend on
// how chroma is spread.
Y4mSamples GetY4mSamples(const std::string& colors);

// Of one frame, without the line before it.
std::size_t GetY4mFrameBytes(const Y4mHeader& header);

// As 16-bit RGBA; what is outside RGB is clamped. The frame holds GetY4mFrameBytes bytes.
void ConvertY4mFrame(const Y4mHeader& header, std::span<const std::uint8_t> samples,
                     Conf::YCbCrMatrix matrix, Image& image);

} // namespace Norvex::App
