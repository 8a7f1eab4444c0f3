#pragma once

// The YUV4MPEG2 ("Y4M") container: a line of parameters, then before each frame a line "FRAME" and
// its planes. The header both ways, frames as planes, and those that become RGB. Pure functions,
// any thread. Throws Failure, without a file's name.

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "apps/norvexdx/clips/ClipFrame.h"
#include "apps/norvexdx/clips/VideoFormat.h"

namespace Norvex::App {

constexpr std::string_view kY4mMagic = "YUV4MPEG2 ";
constexpr std::string_view kY4mFrame = "FRAME";

// Progressive frames: others are refused.
struct Y4mHeader {
    DX::Size2DT<long> size;
    std::optional<FrameRate> rate; // empty: the file does not say
    std::string aspect = "0:0";    // width to height of a pixel; 0:0: the file does not say
    std::string colors = "420jpeg";
    DX::FrameRange range = DX::FrameRange::Narrow;
};

// The header line without its line break. Failures: no width or height, interlaced, a range
// that is not known.
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

// Of one frame that becomes RGB, without the line before it. Failure also for full range.
std::size_t GetY4mFrameBytes(const Y4mHeader& header);

// As 16-bit RGBA; what is outside RGB is clamped. The frame holds GetY4mFrameBytes bytes.
void ConvertY4mFrame(const Y4mHeader& header, std::span<const std::uint8_t> samples,
                     Conf::YCbCrMatrix matrix, Image& image);

// How a frame of planes lies in the file and in memory.
struct Y4mPlanes {
    DX::D3FrameDesc desc;      // in memory
    unsigned shift = 0;        // codes of 9 and 14 bits become those of 10 and 16
    std::size_t fileBytes = 0; // of a frame, without the line before it; of Cmono the luma alone
};

// Every layout that D3FrameDesc::FromY4MTags takes, also with 9 and 14 bits in narrow range, and
// Cmono, which becomes 4:2:0 without colour. Failure for any other.
Y4mPlanes DescribeY4mPlanes(const Y4mHeader& header);
// The samples of a frame as they were read, at the beginning of memory that holds all planes,
// become those of the description.
void FinishY4mPlanes(const Y4mPlanes& planes, std::span<std::uint8_t> samples);

} // namespace Norvex::App
